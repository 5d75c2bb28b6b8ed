// The receivers compare_receive and compare_drain measure, and how to reach the sockets of those
// that do not expose them.
#pragma once

#include <arpa/inet.h>
#include <dirent.h>
#include <lo/lo.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ip/UdpSocket.h"
#include "loopback_bench.hpp"
#include "osc/OscPacketListener.h"
#include "osc/codec/OSCMessage.hpp"
#include "osc/dispatch/SerialQueue.hpp"
#include "osc/transport/OSCServer.hpp"
#include "osc/transport/UdpSocket.hpp"
#include "osc/transport/UdpSocketError.hpp"

namespace receive_bench {

using namespace loopback_bench;

// A port nobody holds right now, for receivers that must be given one.
inline std::uint16_t freePort() {
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) failErrno("socket");
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        failErrno("bind");
    }
    ::close(fd);
    return ntohs(address.sin_port);
}

// The UDP descriptors of this process bound to `port`: the way to reach the sockets of a library
// that does not expose them.
inline std::vector<int> socketsBoundTo(std::uint16_t port) {
    std::vector<int> found;
    DIR* dir = ::opendir("/proc/self/fd");
    if (!dir) failErrno("opendir /proc/self/fd");
    while (const dirent* entry = ::readdir(dir)) {
        char* end = nullptr;
        const long fd = std::strtol(entry->d_name, &end, 10);
        if (*end != '\0' || fd == ::dirfd(dir)) continue;
        int type = 0;
        socklen_t typeLength = sizeof type;
        if (::getsockopt(static_cast<int>(fd), SOL_SOCKET, SO_TYPE, &type, &typeLength) != 0 ||
            type != SOCK_DGRAM) {
            continue;
        }
        sockaddr_storage address{};
        socklen_t length = sizeof address;
        if (::getsockname(static_cast<int>(fd), reinterpret_cast<sockaddr*>(&address), &length) !=
            0) {
            continue;
        }
        std::uint16_t bound = 0;
        if (address.ss_family == AF_INET) {
            bound = ntohs(reinterpret_cast<const sockaddr_in&>(address).sin_port);
        } else if (address.ss_family == AF_INET6) {
            bound = ntohs(reinterpret_cast<const sockaddr_in6&>(address).sin6_port);
        }
        if (bound == port) found.push_back(static_cast<int>(fd));
    }
    ::closedir(dir);
    return found;
}

inline int receiveBufferOf(int fd) {
    int size = 0;
    socklen_t length = sizeof size;
    if (::getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, &length) != 0) failErrno("SO_RCVBUF");
    return size;
}

inline void forceReceiveBuffer(int fd, std::size_t bytes) {
    const int size = static_cast<int>(std::min<std::size_t>(bytes, INT32_MAX / 2));
    if (::setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0 &&
        ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size) != 0) {
        failErrno("setting the receive buffer");
    }
}

// One receiver under test: bound and receiving once constructed, stopped by its destructor.
class Receiver {
  public:
    virtual ~Receiver() = default;
    virtual std::uint16_t port() const = 0;
    // Whether the receiver sets its buffer itself (ours, through the public option).
    virtual bool setsOwnBuffer() const { return false; }
};

// An OSCServer whose owning handler counts on a serial queue of its own or, `view`, whose view
// handler counts on the receive queue.
class KavrinReceiver final : public Receiver {
  public:
    KavrinReceiver(Counter& counter, std::size_t buffer, bool view = false) : port_(freePort()) {
        server = kavrin::OSCServer::create(port_, nullptr, kavrin::SerialQueue::create("handler"),
                                           kavrin::OSCServer::TimeTagMode::osc1_0);
        if (view) {
            server->setViewHandler([&counter](const kavrin::OSCMessageView&,
                                              const kavrin::OSCTimeTag&,
                                              const kavrin::SocketAddress&) { counter.hit(); });
        } else {
            server->setHandler([&counter](const kavrin::OSCMessage&, const kavrin::OSCTimeTag&) {
                counter.hit();
            });
        }
        if (buffer != 0) server->setKernelReceiveBufferSize(buffer);
        try {
            server->start();
        } catch (const kavrin::UdpSocketError& error) {
            fail(std::string("OSCServer: ") + error.what());
        }
    }
    ~KavrinReceiver() override { server->stop(); }
    std::uint16_t port() const override { return port_; }
    bool setsOwnBuffer() const override { return true; }

  private:
    std::uint16_t port_;
    std::shared_ptr<kavrin::OSCServer> server;
};

// The socket under the server alone: a delegate that counts each datagram of the blocks it is
// handed on its queue.
class UdpSocketReceiver final : public Receiver {
  public:
    explicit UdpSocketReceiver(Counter& counter)
        : port_(freePort()), delegate(std::make_shared<Counting>(counter)) {
        socket = kavrin::UdpSocket::create(delegate, kavrin::SerialQueue::create("delegate"));
        kavrin::UdpSocketError error;
        if (!socket->bindToPort(port_, &error) || !socket->beginReceiving(&error)) {
            fail(std::string("UdpSocket: ") + error.what());
        }
    }
    ~UdpSocketReceiver() override { socket->close(); }
    std::uint16_t port() const override { return port_; }

  private:
    struct Counting final : kavrin::UdpSocketDelegate {
        explicit Counting(Counter& counter) : counter(counter) {}
        void udpSocketDidReceiveBlock(kavrin::UdpSocket&, kavrin::UdpDatagramBlock block) override {
            for (std::size_t i = 0; i < block.size(); ++i) counter.hit();
        }
        Counter& counter;
    };
    std::uint16_t port_;
    std::shared_ptr<Counting> delegate;
    std::shared_ptr<kavrin::UdpSocket> socket;
};

class LibloReceiver final : public Receiver {
  public:
    explicit LibloReceiver(Counter& counter) {
        const std::string port = std::to_string(freePort());
        thread = lo_server_thread_new(port.c_str(), nullptr);
        if (!thread) fail("lo_server_thread_new failed");
        lo_server_thread_add_method(thread, "/mixer/ch/12/fader/level", "ifs",
                                    &LibloReceiver::method, &counter);
        if (lo_server_thread_start(thread) != 0) fail("lo_server_thread_start failed");
    }
    ~LibloReceiver() override {
        lo_server_thread_stop(thread);
        lo_server_thread_free(thread);
    }
    std::uint16_t port() const override {
        return static_cast<std::uint16_t>(lo_server_thread_get_port(thread));
    }

  private:
    static int method(const char*, const char*, lo_arg**, int, lo_message, void* counter) {
        static_cast<Counter*>(counter)->hit();
        return 0;
    }
    lo_server_thread thread;
};

class OscpackReceiver final : public Receiver, private osc::OscPacketListener {
  public:
    explicit OscpackReceiver(Counter& counter)
        : counter(counter),
          port_(freePort()),
          socket(IpEndpointName(IpEndpointName::ANY_ADDRESS, port_), this),
          thread([this] { socket.Run(); }) {}
    ~OscpackReceiver() override {
        socket.AsynchronousBreak();
        thread.join();
    }
    std::uint16_t port() const override { return port_; }

  private:
    void ProcessMessage(const osc::ReceivedMessage&, const IpEndpointName&) override {
        counter.hit();
    }
    Counter& counter;
    std::uint16_t port_;
    UdpListeningReceiveSocket socket;
    std::thread thread;
};

// A bare blocking loop, one datagram per recvfrom call, or (batched) up to 16 per recvmmsg call:
// the two ceilings, for a receiver that reads one at a time and for one that reads in batches.
class RecvfromReceiver final : public Receiver {
  public:
    RecvfromReceiver(Counter& counter, bool batched) : fd(::socket(AF_INET, SOCK_DGRAM, 0)) {
        if (fd < 0) failErrno("socket");
        sockaddr_in address = loopback(0);
        socklen_t length = sizeof address;
        if (::bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
            ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            failErrno("bind");
        }
        port_ = ntohs(address.sin_port);
        thread = std::thread([this, &counter, batched] {
            if (batched) return receiveBatches(counter);
            std::vector<std::uint8_t> buffer(65536);
            sockaddr_storage from{};
            for (;;) {
                socklen_t fromLength = sizeof from;
                if (::recvfrom(fd, buffer.data(), buffer.size(), 0,
                               reinterpret_cast<sockaddr*>(&from), &fromLength) <= 0) {
                    return;  // woken by shutdown
                }
                counter.hit();
            }
        });
    }
    ~RecvfromReceiver() override {
        ::shutdown(fd, SHUT_RDWR);
        thread.join();
        ::close(fd);
    }
    std::uint16_t port() const override { return port_; }

  private:
    void receiveBatches(Counter& counter) {
        constexpr unsigned kSlots = 16;
        constexpr std::size_t kSlotSize = 2048;  // ample for the one datagram size sent here
        std::vector<std::uint8_t> buffer(kSlots * kSlotSize);
        mmsghdr messages[kSlots];
        iovec slots[kSlots];
        sockaddr_storage from[kSlots];
        for (;;) {
            for (unsigned i = 0; i < kSlots; ++i) {
                slots[i] = {buffer.data() + i * kSlotSize, kSlotSize};
                messages[i] = {};
                messages[i].msg_hdr.msg_name = &from[i];
                messages[i].msg_hdr.msg_namelen = sizeof from[i];
                messages[i].msg_hdr.msg_iov = &slots[i];
                messages[i].msg_hdr.msg_iovlen = 1;
            }
            // Blocks for the first datagram, then takes what else is waiting.
            const int count = ::recvmmsg(fd, messages, kSlots, MSG_WAITFORONE, nullptr);
            if (count <= 0 || messages[0].msg_len == 0) return;  // woken by shutdown
            for (int i = 0; i < count; ++i) counter.hit();
        }
    }

    int fd;
    std::uint16_t port_ = 0;
    std::thread thread;
};

inline std::unique_ptr<Receiver> makeReceiver(const std::string& kind, Counter& counter,
                                              std::size_t buffer) {
    if (kind == "kavrin") return std::make_unique<KavrinReceiver>(counter, buffer);
    if (kind == "kavrin-view") return std::make_unique<KavrinReceiver>(counter, buffer, true);
    if (kind == "udpsocket") return std::make_unique<UdpSocketReceiver>(counter);
    if (kind == "liblo") return std::make_unique<LibloReceiver>(counter);
    if (kind == "oscpack") return std::make_unique<OscpackReceiver>(counter);
    if (kind == "recvfrom") return std::make_unique<RecvfromReceiver>(counter, false);
    if (kind == "recvmmsg") return std::make_unique<RecvfromReceiver>(counter, true);
    fail("unknown receiver " + kind);
}

// The Typical message, encoded once by our codec and sent by every sender.
inline std::vector<std::uint8_t> typicalDatagram() {
    return kavrin::OSCMessage("/mixer/ch/12/fader/level",
                              {std::int32_t{12}, 0.75f, std::string("main")})
        .rawData();
}

// A UDP socket connected to 127.0.0.1:port, for sending.
inline int connectedSender(std::uint16_t port) {
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) failErrno("socket");
    const sockaddr_in target = loopback(port);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&target), sizeof target) != 0) {
        failErrno("connect");
    }
    return fd;
}

}  // namespace receive_bench
