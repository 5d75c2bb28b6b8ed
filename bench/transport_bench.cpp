// Loopback receive throughput of OSCServer against a bare recvfrom loop (the ceiling).
//
// A sender thread sends N datagrams to 127.0.0.1 in two ways: "blast" (as fast as it can, so
// the receive buffer overflows and datagrams are lost) and "windowed" (at most W datagrams in
// flight, counted against what the receiver has taken, so nothing should be lost). For the
// server each datagram is one small message or a bundle of three; every message is counted by
// the handler on a serial dispatch queue. A plain program rather than a Google Benchmark: the
// figures of interest are rates and losses, not per-iteration times.
//
// usage: transport_bench [DATAGRAMS [WINDOW]]   (defaults 200000 and 64)

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <thread>
#include <vector>

#include "osc/codec/OSCBundle.hpp"
#include "osc/codec/OSCMessage.hpp"
#include "osc/dispatch/SerialQueue.hpp"
#include "osc/transport/OSCServer.hpp"
#include "osc/transport/UdpSocketError.hpp"

using namespace kavrin;
using Clock = std::chrono::steady_clock;

namespace {

sockaddr_in loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

std::uint16_t freePort() {
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), length);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(fd);
    return ntohs(address.sin_port);
}

struct Result {
    double datagramsPerSecond;
    double messagesPerSecond;
    long lost;
    double cpuMicrosecondsPerDatagram;  // whole process, sender included: robust on a busy host
};

double cpuSeconds() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    auto seconds = [](const timeval& t) { return t.tv_sec + t.tv_usec / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// Sends `count` copies of `datagram`; `taken()` counts datagrams the receiver has taken. Waits
// until the count stops moving, then reports rates over first send to last receipt.
Result run(std::uint16_t port, const std::vector<std::uint8_t>& datagram, long count, long window,
           int messagesPerDatagram, const std::function<long()>& taken) {
    const long before = taken();
    const double cpuBefore = cpuSeconds();
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    const sockaddr_in target = loopback(port);
    const auto start = Clock::now();
    for (long sent = 0; sent < count; ++sent) {
        while (window > 0 && sent - (taken() - before) >= window) {
            std::this_thread::yield();
        }
        if (::sendto(fd, datagram.data(), datagram.size(), 0,
                     reinterpret_cast<const sockaddr*>(&target), sizeof target) < 0) {
            std::perror("sendto");
            std::exit(1);
        }
    }
    ::close(fd);
    // Quiet for 200 ms: everything that will arrive has arrived.
    long last = -1;
    auto lastChange = Clock::now();
    for (;;) {
        const long now = taken();
        if (now != last) {
            last = now;
            lastChange = Clock::now();
        } else if (Clock::now() - lastChange > std::chrono::milliseconds(200)) {
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    const long received = last - before;
    const double seconds = std::chrono::duration<double>(lastChange - start).count();
    // The 200 ms of polling above costs next to no CPU.
    const double cpu = cpuSeconds() - cpuBefore;
    return {received / seconds, received * messagesPerDatagram / seconds, count - received,
            received ? cpu * 1e6 / received : 0.0};
}

// The ceiling: one blocking socket, a thread that only calls recvfrom and counts. Same receive
// buffer size as the server's socket.
struct RawReceiver {
    RawReceiver() : fd(::socket(AF_INET, SOCK_DGRAM, 0)) {
        const int size = 65535;
        ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
        sockaddr_in address = loopback(0);
        socklen_t length = sizeof address;
        ::bind(fd, reinterpret_cast<sockaddr*>(&address), length);
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
        port = ntohs(address.sin_port);
        thread = std::thread([this] {
            std::vector<std::uint8_t> buffer(65535);
            sockaddr_storage from{};
            for (;;) {
                socklen_t length = sizeof from;
                if (::recvfrom(fd, buffer.data(), buffer.size(), 0,
                               reinterpret_cast<sockaddr*>(&from), &length) <= 0) {
                    return;
                }
                taken.fetch_add(1, std::memory_order_relaxed);
            }
        });
    }
    ~RawReceiver() {
        ::shutdown(fd, SHUT_RDWR);  // wakes recvfrom
        thread.join();
        ::close(fd);
    }
    int fd;
    std::uint16_t port = 0;
    std::atomic<long> taken{0};
    std::thread thread;
};

void print(const char* receiver, const char* payload, const char* mode, const Result& result) {
    std::printf(
        "%-10s %-10s %-9s %9.0f datagrams/s %9.0f messages/s %7ld lost %6.2f us CPU/datagram\n",
        receiver, payload, mode, result.datagramsPerSecond, result.messagesPerSecond, result.lost,
        result.cpuMicrosecondsPerDatagram);
}

}  // namespace

int main(int argc, char** argv) {
    const long count = argc > 1 ? std::atol(argv[1]) : 200000;
    const long window = argc > 2 ? std::atol(argv[2]) : 64;

    const auto message = OSCMessage("/eos/out/ping", {std::int32_t{1}, 2.5f}).rawData();
    const auto bundle = OSCBundle(OSCTimeTag::immediate(), {OSCMessage("/a/1", {std::int32_t{1}}),
                                                            OSCMessage("/a/2", {std::int32_t{2}}),
                                                            OSCMessage("/a/3", {std::int32_t{3}})})
                            .rawData();
    std::printf("%ld datagrams per run, window %ld; message %zu bytes, bundle %zu bytes\n", count,
                window, message.size(), bundle.size());

    std::atomic<long> messages{0};
    auto dispatch = SerialQueue::create("bench");
    auto server = OSCServer::create(freePort(), nullptr, dispatch, OSCServer::TimeTagMode::ignore,
                                    [&](const OSCMessage&, const OSCTimeTag&) {
                                        messages.fetch_add(1, std::memory_order_relaxed);
                                    });
    try {
        server->start();
    } catch (const UdpSocketError& error) {
        std::fprintf(stderr, "cannot start the server: %s\n", error.what());
        return 1;
    }
    RawReceiver raw;
    auto rawTaken = [&] { return raw.taken.load(std::memory_order_relaxed); };
    auto messagesTaken = [&] { return messages.load(std::memory_order_relaxed); };
    auto bundlesTaken = [&] { return messages.load(std::memory_order_relaxed) / 3; };
    for (long windowSize : {0L, window}) {
        const char* mode = windowSize ? "windowed" : "blast";
        print("recvfrom", "message", mode, run(raw.port, message, count, windowSize, 1, rawTaken));
        print("OSCServer", "message", mode,
              run(server->port(), message, count, windowSize, 1, messagesTaken));
        print("OSCServer", "bundle(3)", mode,
              run(server->port(), bundle, count, windowSize, 3, bundlesTaken));
    }
    return 0;
}
