// liblo as an independent console for the monitor's tests, used only through its API: it answers
// each /eos/ping with /eos/out/ping carrying the ping's own arguments.
//   liblo_console udp|tcp|slip PORT [REPLY_PORT]
// Listens on PORT (0: the kernel's choice) and prints "port N" once it does. With REPLY_PORT the
// reply goes over UDP to 127.0.0.1:REPLY_PORT; without, to the ping's sender: over UDP to its
// source address and port, over TCP on the connection the ping came in on. Runs until killed.
#include <lo/lo.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

namespace {

lo_server_thread peer = nullptr;
lo_address replyTo = nullptr;  // null: answer the sender

int answer(const char*, const char*, lo_arg**, int, lo_message ping, void*) {
    lo_address to = replyTo ? replyTo : lo_message_get_source(ping);
    if (lo_send_message_from(to, lo_server_thread_get_server(peer), "/eos/out/ping", ping) < 0) {
        std::fprintf(stderr, "liblo_console: reply failed: %s\n", lo_address_errstr(to));
    }
    return 0;
}

void failed(int number, const char* message, const char* where) {
    std::fprintf(stderr, "liblo_console: error %d: %s (%s)\n", number, message, where ? where : "");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: liblo_console udp|tcp|slip PORT [REPLY_PORT]\n");
        return 2;
    }
    const std::string mode = argv[1];
    const std::string port = argv[2];
    peer = lo_server_thread_new_with_proto(port == "0" ? nullptr : port.c_str(),
                                           mode == "udp" ? LO_UDP : LO_TCP, failed);
    if (peer == nullptr) return 1;
    if (argc > 3) replyTo = lo_address_new("127.0.0.1", argv[3]);
    lo_server_thread_add_method(peer, "/eos/ping", nullptr, answer, nullptr);
    lo_server_thread_start(peer);
    std::printf("port %d\n", lo_server_thread_get_port(peer));
    std::fflush(stdout);
    for (;;) pause();
}
