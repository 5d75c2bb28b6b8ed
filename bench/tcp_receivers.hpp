// The receivers compare_tcp measures: what each is called, the framing and security it takes,
// and how it is set up to count. For compare_tcp.cpp alone.
#pragma once

#include <arpa/inet.h>
#include <lo/lo.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "loopback_bench.hpp"
#include "osc/codec/OSCMessage.hpp"
#include "osc/dispatch/SerialQueue.hpp"
#include "osc/stream/OSCStreamServer.hpp"

namespace tcp_bench {

using namespace loopback_bench;

// The Typical message: what every sender sends and what a checking receiver expects.
inline kavrin::OSCMessage typicalMessage() {
    return kavrin::OSCMessage("/mixer/ch/12/fader/level",
                              {std::int32_t{12}, 0.75f, std::string("main")});
}

// A row of the table: a receiver (its library), the framing it reads and whether over TLS.
struct Row {
    std::string name;  // on the command line and in the results
    std::string library;
    kavrin::OSCFraming framing;
    bool tls;
};

inline const std::vector<Row>& allRows() {
    using kavrin::OSCFraming;
    static const std::vector<Row> rows{
        {"kavrin", "kavrin", OSCFraming::lengthPrefixed, false},
        {"kavrin-slip", "kavrin", OSCFraming::slip, false},
        {"kavrin-tls", "kavrin", OSCFraming::lengthPrefixed, true},
        {"kavrin-slip-tls", "kavrin", OSCFraming::slip, true},
        {"liblo", "liblo", OSCFraming::lengthPrefixed, false},
        {"liblo-slip", "liblo", OSCFraming::slip, false},
        {"recv", "recv", OSCFraming::lengthPrefixed, false},
    };
    return rows;
}

inline const Row& rowNamed(const std::string& name) {
    for (const auto& row : allRows()) {
        if (row.name == name) return row;
    }
    fail("unknown receiver " + name);
}

inline const char* framingName(kavrin::OSCFraming framing) {
    return framing == kavrin::OSCFraming::slip ? "SLIP" : "length-prefixed";
}

// What a checking receiver finds wrong: messages that are not the Typical one. Null when only
// counting, so that the timed runs pay for nothing but the count.
using Wrong = std::atomic<long>;

class TcpReceiver {
  public:
    virtual ~TcpReceiver() = default;
    virtual std::uint16_t port() const = 0;
};

class KavrinTcpReceiver final : public TcpReceiver {
  public:
    KavrinTcpReceiver(const Row& row, const std::string& certificates, Counter& counter,
                      Wrong* wrong) {
        kavrin::OSCStreamSettings settings;
        settings.framing = row.framing;
        if (row.tls) {
            kavrin::TlsSettings tls;
            tls.certificateChainFile = certificates + "/cert.pem";
            tls.privateKeyFile = certificates + "/key.pem";
            settings.tls = tls;
        }
        kavrin::OSCStreamHandler handler;
        if (wrong) {
            handler = [&counter, wrong, expected = typicalMessage()](
                          const kavrin::OSCMessage& message, const kavrin::OSCTimeTag&,
                          const std::shared_ptr<kavrin::OSCStreamConnection>&) {
                if (!(message == expected)) ++*wrong;
                counter.hit();
            };
        } else {
            handler = [&counter](const kavrin::OSCMessage&, const kavrin::OSCTimeTag&,
                                 const std::shared_ptr<kavrin::OSCStreamConnection>&) {
                counter.hit();
            };
        }
        server = kavrin::OSCStreamServer::create(0, kavrin::SerialQueue::create("handler"),
                                                 kavrin::OSCStreamServer::TimeTagMode::osc1_0,
                                                 settings, std::move(handler));
        try {
            server->start();
        } catch (const kavrin::TcpSocketError& error) {
            fail(std::string("OSCStreamServer: ") + error.what());
        }
    }
    ~KavrinTcpReceiver() override { server->stop(); }
    std::uint16_t port() const override { return server->boundPort(); }

  private:
    std::shared_ptr<kavrin::OSCStreamServer> server;
};

// liblo tells a length-prefixed stream from a SLIP one by itself: the same server takes both.
class LibloTcpReceiver final : public TcpReceiver {
  public:
    LibloTcpReceiver(Counter& counter, Wrong* wrong) : counter(counter), wrong(wrong) {
        thread = lo_server_thread_new_with_proto(nullptr, LO_TCP, &LibloTcpReceiver::error);
        if (!thread) fail("lo_server_thread_new_with_proto failed");
        lo_server_thread_add_method(thread, "/mixer/ch/12/fader/level", "ifs",
                                    wrong ? &LibloTcpReceiver::check : &LibloTcpReceiver::count,
                                    this);
        // Methods are tried in the order added: this one takes whatever the first did not.
        if (wrong) lo_server_thread_add_method(thread, nullptr, nullptr, &LibloTcpReceiver::other, this);
        if (lo_server_thread_start(thread) != 0) fail("lo_server_thread_start failed");
    }
    ~LibloTcpReceiver() override {
        lo_server_thread_stop(thread);
        lo_server_thread_free(thread);
    }
    std::uint16_t port() const override {
        return static_cast<std::uint16_t>(lo_server_thread_get_port(thread));
    }

  private:
    static int count(const char*, const char*, lo_arg**, int, lo_message, void* self) {
        static_cast<LibloTcpReceiver*>(self)->counter.hit();
        return 0;
    }
    static int check(const char*, const char*, lo_arg** argv, int, lo_message, void* self) {
        auto& receiver = *static_cast<LibloTcpReceiver*>(self);
        if (argv[0]->i != 12 || argv[1]->f != 0.75f || std::strcmp(&argv[2]->s, "main") != 0) {
            ++*receiver.wrong;
        }
        receiver.counter.hit();
        return 0;
    }
    static int other(const char*, const char*, lo_arg**, int, lo_message, void* self) {
        auto& receiver = *static_cast<LibloTcpReceiver*>(self);
        ++*receiver.wrong;
        receiver.counter.hit();
        return 0;
    }
    static void error(int number, const char* message, const char* where) {
        std::fprintf(stderr, "liblo error %d: %s%s%s\n", number, message, where ? " in " : "",
                     where ? where : "");
    }

    Counter& counter;
    Wrong* wrong;
    lo_server_thread thread;
};

// A bare blocking recv loop on one connection that walks the size prefixes and counts: the
// ceiling for a length-prefixed receiver, and the proof that the sender outruns the others.
class RecvTcpReceiver final : public TcpReceiver {
  public:
    RecvTcpReceiver(Counter& counter, Wrong* wrong) : listener(::socket(AF_INET, SOCK_STREAM, 0)) {
        if (listener < 0) failErrno("socket");
        sockaddr_in address = loopback(0);
        socklen_t length = sizeof address;
        if (::bind(listener, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
            ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
            ::listen(listener, 1) != 0) {
            failErrno("listen");
        }
        port_ = ntohs(address.sin_port);
        thread = std::thread([this, &counter, wrong] {
            const int fd = ::accept(listener, nullptr, nullptr);
            if (fd < 0) return;  // woken by shutdown
            connection.store(fd);
            receive(fd, counter, wrong);
        });
    }
    ~RecvTcpReceiver() override {
        ::shutdown(listener, SHUT_RDWR);
        const int fd = connection.load();
        if (fd >= 0) ::shutdown(fd, SHUT_RDWR);
        thread.join();
        if (fd >= 0) ::close(fd);
        ::close(listener);
    }
    std::uint16_t port() const override { return port_; }

  private:
    static void receive(int fd, Counter& counter, Wrong* wrong) {
        const auto expected = typicalMessage().rawData();
        std::vector<std::uint8_t> buffer(64 * 1024);
        std::size_t held = 0;
        for (;;) {
            const ssize_t n = ::recv(fd, buffer.data() + held, buffer.size() - held, 0);
            if (n <= 0) return;  // the sender closed, or woken by shutdown
            held += static_cast<std::size_t>(n);
            std::size_t at = 0;
            while (held - at >= 4) {
                std::uint32_t prefix;
                std::memcpy(&prefix, buffer.data() + at, 4);
                const std::size_t size = ntohl(prefix);
                if (size > buffer.size() - 4) fail("recv: frame too large");
                if (held - at - 4 < size) break;
                if (wrong && (size != expected.size() ||
                              std::memcmp(buffer.data() + at + 4, expected.data(), size) != 0)) {
                    ++*wrong;
                }
                counter.hit();
                at += 4 + size;
            }
            std::memmove(buffer.data(), buffer.data() + at, held - at);
            held -= at;
        }
    }

    int listener;
    std::uint16_t port_ = 0;
    std::atomic<int> connection{-1};
    std::thread thread;
};

inline std::unique_ptr<TcpReceiver> makeReceiver(const Row& row, const std::string& certificates,
                                                 Counter& counter, Wrong* wrong) {
    if (row.library == "kavrin") {
        return std::make_unique<KavrinTcpReceiver>(row, certificates, counter, wrong);
    }
    if (row.library == "liblo") return std::make_unique<LibloTcpReceiver>(counter, wrong);
    return std::make_unique<RecvTcpReceiver>(counter, wrong);
}

}  // namespace tcp_bench
