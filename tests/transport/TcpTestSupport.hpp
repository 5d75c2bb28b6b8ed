#pragma once

// What the socket and stream tests share: a TcpSocket delegate that
// records every report, a bare BSD socket peer, and the description of an error for failure
// messages.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>
#include <utility>

#include "osc/dispatch/SerialQueue.hpp"
#include "osc/transport/TcpSocket.hpp"
#include "tests/Recording.hpp"

namespace kavrin::tcpTest {

using Bytes = std::vector<std::uint8_t>;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

inline Bytes bytes(std::string_view text) {
    return {text.begin(), text.end()};
}

inline std::string text(const Bytes& data) {
    return {data.begin(), data.end()};
}

// Any socket's error as one line: domain, code, description and the failure reason.
inline std::string describe(const std::optional<SocketError>& error) {
    if (!error) return "no error";
    return error->domain() + " " + std::to_string(error->code()) + ": " + error->description() +
           (error->failureReason() ? " (" + *error->failureReason() + ")" : "");
}

// For a condition nothing announces: checks it every few milliseconds, up to the bound.
inline bool eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds bound = 5s) {
    for (const auto deadline = Clock::now() + bound; !condition(); ::poll(nullptr, 0, 5)) {
        if (Clock::now() > deadline) return false;
    }
    return true;
}

using test::Recording;

// Every TcpSocket report, with the socket it came from. onWillAccept and onAccept, when set,
// run on the delegate queue for each accepted socket, as a server's delegate would choose its
// delegate and start its reads there.
class Recorder : public TcpSocketDelegate, public Recording {
  public:
    struct Connected {
        std::string host;
        std::uint16_t port;
    };
    struct Read {
        std::int64_t tag;
        Bytes data;
    };
    struct Disconnect {
        TcpSocket* socket;
        std::optional<TcpSocketError> error;
    };

    using Recording::Recording;

    void socketDidConnect(TcpSocket&, const std::string& host, std::uint16_t port) override {
        record([&] { connected.push_back({host, port}); });
    }
    void socketWillAccept(TcpSocket&, const SocketAddress&, AcceptedConnection& setup) override {
        if (onWillAccept) onWillAccept(setup);
    }
    void socketDidAccept(TcpSocket&, std::shared_ptr<TcpSocket> newSocket) override {
        if (onAccept) onAccept(newSocket);
        record([&] { accepted.push_back(std::move(newSocket)); });
    }
    void socketDidReadData(TcpSocket&, Bytes data, std::int64_t tag) override {
        record([&] { reads.push_back({tag, std::move(data)}); });
    }
    void socketDidReadPartialDataOfLength(TcpSocket&, std::size_t length, std::int64_t) override {
        record([&] { partialReadBytes += length; });
    }
    void socketDidWriteDataWithTag(TcpSocket&, std::int64_t tag) override {
        record([&] { written.push_back(tag); });
    }
    void socketDidWritePartialDataOfLength(TcpSocket&, std::size_t length, std::int64_t) override {
        record([&] { partialWriteBytes += length; });
    }
    void socketDidSecure(TcpSocket& sock) override {
        record([&] { secured.push_back(&sock); });
    }
    void socketDidDisconnect(TcpSocket& sock, const std::optional<TcpSocketError>& error) override {
        record([&] { disconnects.push_back({&sock, error}); });
    }

    // The error that first disconnected sock, described; "no disconnect" after the bound.
    std::string disconnectError(TcpSocket* sock) {
        std::optional<std::string> found;
        waitFor([&] {
            for (const auto& d : disconnects) {
                if (d.socket == sock && !found) found = describe(d.error);
            }
            return found.has_value();
        });
        return found.value_or("no disconnect");
    }

    bool waitForReads(std::size_t count) {
        return waitFor([&] { return reads.size() >= count; });
    }

    std::size_t disconnectsOf(TcpSocket* sock) {
        return read([&] {
            std::size_t count = 0;
            for (const auto& d : disconnects) count += d.socket == sock;
            return count;
        });
    }

    std::function<void(AcceptedConnection&)> onWillAccept;
    std::function<void(const std::shared_ptr<TcpSocket>&)> onAccept;
    std::vector<Connected> connected;
    std::vector<std::shared_ptr<TcpSocket>> accepted;
    std::vector<Read> reads;
    std::size_t partialReadBytes = 0;
    std::vector<std::int64_t> written;
    std::size_t partialWriteBytes = 0;
    std::vector<TcpSocket*> secured;
    std::vector<Disconnect> disconnects;
};

// A socket with a recording delegate on a serial delegate queue of its own.
struct Endpoint {
    Endpoint()
        : delegateQueue(SerialQueue::create("test.delegate")),
          recorder(std::make_shared<Recorder>(delegateQueue)),
          socket(TcpSocket::create(recorder, delegateQueue)) {}

    std::shared_ptr<SerialQueue> delegateQueue;
    std::shared_ptr<Recorder> recorder;
    std::shared_ptr<TcpSocket> socket;
};

// A descriptor closed when it goes out of scope.
class Fd {
  public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Fd& operator=(Fd&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~Fd() {
        if (fd_ != -1) ::close(fd_);
    }
    int get() const { return fd_; }
    explicit operator bool() const { return fd_ != -1; }

  private:
    int fd_ = -1;
};

// The bare peer: plain blocking BSD sockets on a numeric loopback host.
inline Fd rawListen(const std::string& host, std::uint16_t* port, int backlog = 16) {
    const SocketAddress address = SocketAddress::fromNumericHost(host, 0);
    Fd fd(::socket(address.family(), SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int on = 1;
    ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(address.data()),
               static_cast<socklen_t>(address.size())) != 0 ||
        ::listen(fd.get(), backlog) != 0) {
        return {};
    }
    sockaddr_in6 bound{};
    socklen_t length = sizeof bound;
    ::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&bound), &length);
    *port = SocketAddress(&bound, length).port();
    return fd;
}

inline bool waitReadable(int fd, std::chrono::milliseconds bound) {
    pollfd entry{fd, POLLIN, 0};
    return ::poll(&entry, 1, static_cast<int>(bound.count())) == 1;
}

inline Fd rawAccept(int listener, std::chrono::milliseconds bound = 10s) {
    if (!waitReadable(listener, bound)) return {};
    return Fd(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
}

inline Fd rawConnect(const std::string& host, std::uint16_t port) {
    const SocketAddress address = SocketAddress::fromNumericHost(host, port);
    Fd fd(::socket(address.family(), SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(address.data()),
                  static_cast<socklen_t>(address.size())) != 0) {
        return {};
    }
    return fd;
}

inline bool sendAll(int fd, const Bytes& data) {
    std::size_t sent = 0;
    while (sent < data.size()) {
        const ssize_t n = ::send(fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) return false;
        sent += static_cast<std::size_t>(n);
    }
    return true;
}

// True when the peer has closed: the stream ends (or is reset) within the bound.
inline bool seesEndOfStream(int fd, std::chrono::milliseconds bound = 10s) {
    if (!waitReadable(fd, bound)) return false;
    std::uint8_t byte;
    return ::recv(fd, &byte, 1, MSG_DONTWAIT) <= 0;
}

}  // namespace kavrin::tcpTest
