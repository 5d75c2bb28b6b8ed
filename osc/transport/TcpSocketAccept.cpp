#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "osc/dispatch/TimerSource.hpp"
#include "osc/transport/TcpSocket.hpp"
#include "osc/transport/detail/Fail.hpp"
#include "osc/transport/detail/InterfaceAddresses.hpp"
#include "osc/transport/detail/SockaddrView.hpp"
#include "osc/transport/detail/TcpSocketInternals.hpp"

// Listening and accepting: one descriptor per family on the same port, connections past the cap
// closed at once, each accepted one handed to the delegate as a socket of its own, and the idle
// time-out of accepted connections.

namespace kavrin {

using namespace tcpSocket;

namespace {

// An accepted descriptor on its way to the delegate queue. Whatever stops it on the way (the
// delegate gone, the queue dropping its work) closes it and frees its place under the cap.
struct PendingConnection {
    PendingConnection(int fd, std::shared_ptr<std::atomic<std::size_t>> count)
        : fd(fd), count(std::move(count)) {}
    PendingConnection(const PendingConnection&) = delete;
    PendingConnection& operator=(const PendingConnection&) = delete;
    ~PendingConnection() {
        if (fd != -1) {
            ::close(fd);
            --*count;
        }
    }

    int release() { return std::exchange(fd, -1); }

    int fd;
    const std::shared_ptr<std::atomic<std::size_t>> count;
};

// How long a listener out of descriptors or memory waits before it accepts again. The
// connection that could not be taken stays queued, and readiness would report it again at once.
constexpr double kAcceptRetryDelay = 0.1;
// Connections taken per readiness event, so that a flood cannot hold the queue.
constexpr int kAcceptBatch = 64;

}  // namespace

bool TcpSocket::acceptOnPort(std::uint16_t port, TcpSocketError* error) {
    return acceptOnInterface(std::nullopt, port, error);
}

bool TcpSocket::acceptOnInterface(const std::optional<std::string>& interface, std::uint16_t port,
                                  TcpSocketError* error) {
    return d_->query([&] { return startAccepting(interface, port, error); });
}

std::size_t TcpSocket::acceptedConnectionCount() const {
    return d_->query([&] { return d_->acceptedCount_ ? d_->acceptedCount_->load() : std::size_t{0}; });
}

bool TcpSocket::startAccepting(const std::optional<std::string>& interface, std::uint16_t port,
                               TcpSocketError* error) {
    if (!startCheck(error)) {
        return false;
    }
    const auto addresses = InterfaceAddresses::lookUp(interface, port);
    if (addresses.ipv4.empty() && addresses.ipv6.empty()) {
        return fail(error, TcpSocketError::badParamError(InterfaceAddresses::unknownInterfaceText));
    }
    SocketAddress address6 = addresses.ipv6;
    if (!addresses.ipv4.empty()) {
        d_->listener4_.fd = openListener(addresses.ipv4, error);
        if (d_->listener4_.fd == -1) {
            return false;
        }
        cacheAddresses(d_->listener4_.fd);
        // Both families listen on the port the kernel chose for the first.
        if (!address6.empty()) {
            address6 = address6.withPort(d_->localAddress_.port());
        }
    }
    if (!address6.empty()) {
        d_->listener6_.fd = openListener(address6, error);
        if (d_->listener6_.fd == -1) {
            if (d_->listener4_.fd != -1) {
                ::close(d_->listener4_.fd);  // no sources yet to close it
                d_->listener4_.fd = -1;
            }
            d_->localAddress_ = {};
            return false;
        }
        if (d_->localAddress_.empty()) {
            cacheAddresses(d_->listener6_.fd);
        }
    }
    for (Descriptor* d : {&d_->listener4_, &d_->listener6_}) {
        if (d->fd != -1 && !openSources(*d, false, error)) {
            for (Descriptor* open : {&d_->listener4_, &d_->listener6_}) {
                if (open->fd != -1 && !open->readSource) {
                    ::close(open->fd);
                    open->fd = -1;
                }
                closeDescriptor(*open);
            }
            d_->localAddress_ = {};
            return false;
        }
    }
    d_->acceptedCount_ = std::make_shared<std::atomic<std::size_t>>(0);
    d_->flags_ |= kAccepting;
    d_->listener4_.readSource.resume();
    d_->listener6_.readSource.resume();
    return true;
}

int TcpSocket::openListener(const SocketAddress& address, TcpSocketError* error) const {
    const int fd = ::socket(address.family(), SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd == -1) {
        fail(error, TcpSocketError::errnoError("Error in socket() function"));
        return -1;
    }
    auto failWith = [&](const char* reason) {
        fail(error, TcpSocketError::errnoError(reason));  // before close() can change errno
        ::close(fd);
        return -1;
    };
    const int on = 1;
    if (::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) {
        return failWith("Error enabling address reuse (setsockopt)");
    }
    // As in UdpSocket: without IPV6_V6ONLY the IPv6 descriptor would take the port for IPv4 too.
    if (address.isIPv6() && ::setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on) != 0) {
        return failWith("Error enabling IPv6 only (setsockopt)");
    }
    if (::bind(fd, sockaddrOf(address), lengthOf(address)) != 0) {
        return failWith("Error in bind() function");
    }
    if (::listen(fd, SOMAXCONN) != 0) {
        return failWith("Error in listen() function");
    }
    return fd;
}

void TcpSocket::onAcceptable(bool isIPv4) {
    const Descriptor& listener = isIPv4 ? d_->listener4_ : d_->listener6_;
    for (int i = 0; i < kAcceptBatch && listener.fd != -1; ++i) {
        sockaddr_in6 storage{};
        socklen_t length = sizeof storage;
        const int fd = ::accept4(listener.fd, reinterpret_cast<sockaddr*>(&storage), &length,
                                 SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd == -1) {
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                return;
            }
            if (errno == EINTR || errno == ECONNABORTED) {
                continue;  // that connection is gone; the next may be fine
            }
            d_->listener4_.readSource.suspend();
            d_->listener6_.readSource.suspend();
            armTimer(d_->acceptRetryTimer_, kAcceptRetryDelay, [](TcpSocket& s) {
                cancelTimer(s.d_->acceptRetryTimer_);
                s.d_->listener4_.readSource.resume();
                s.d_->listener6_.readSource.resume();
            });
            return;
        }
        if (d_->acceptedCount_->load() >= d_->maxAccepted_) {
            ::close(fd);  // past the cap: the peer sees its connection end at once
            continue;
        }
        ++*d_->acceptedCount_;
        deliverAccepted(fd, SocketAddress(&storage, std::min<std::size_t>(length, sizeof storage)));
    }
}

// The new socket is made on the delegate queue, where socketWillAccept can choose its queues.
void TcpSocket::deliverAccepted(int fd, const SocketAddress& peer) {
    auto pending = std::make_shared<PendingConnection>(fd, d_->acceptedCount_);
    auto delegate = d_->delegate_.lock();
    if (!delegate || !d_->delegateQueue_) {
        return;  // nobody to hand it to: pending closes it
    }
    d_->delegateQueue_->async([self = shared_from_this(), delegate = std::move(delegate),
                           pending = std::move(pending), peer,
                           setup = TcpSocketDelegate::AcceptedConnection{d_->delegate_, d_->delegateQueue_,
                                                                         nullptr},
                           noDelay = d_->noDelay_, keepAlive = d_->keepAlive_,
                           idleTimeout = d_->acceptedIdleTimeout_]() mutable {
        delegate->socketWillAccept(*self, peer, setup);
        auto socket = create(setup.delegate, setup.delegateQueue, setup.socketQueue);
        socket->d_->runSync([&] {
            socket->d_->noDelay_ = noDelay;
            socket->d_->keepAlive_ = keepAlive;
            socket->adoptAccepted(pending->release(), pending->count, idleTimeout);
        });
        delegate->socketDidAccept(*self, std::move(socket));
    });
}

void TcpSocket::adoptAccepted(int fd, std::shared_ptr<std::atomic<std::size_t>> count,
                              double idleTimeout) {
    d_->acceptedCount_ = std::move(count);
    TcpSocketError ignored;  // a connection that cannot be set up is handed over closed
    if (!applyOptions(fd, &ignored)) {
        ::close(fd);
        closeWithError(std::nullopt);
        return;
    }
    d_->connection_.fd = fd;
    if (!openSources(d_->connection_, true, &ignored)) {
        closeWithError(std::nullopt);
        return;
    }
    d_->flags_ |= kConnected;
    cacheAddresses(fd);
    d_->connectedHost_ = d_->connectedAddress_.host();
    d_->lastActivity_ = State::Clock::now();
    d_->idleTimeout_ = idleTimeout;
    armTimer(d_->idleTimer_, idleTimeout, [](TcpSocket& s) { s.checkIdle(); });
}

// The timer runs from the last byte moved, without a restart for every byte: when it fires
// early it is set again for the time that remains.
void TcpSocket::checkIdle() {
    const auto idle = std::chrono::duration_cast<DispatchQueue::Clock::duration>(
        std::chrono::duration<double>(d_->idleTimeout_));
    const auto elapsed = State::Clock::now() - d_->lastActivity_;
    if (elapsed >= idle) {
        closeWithError(TcpSocketError::idleTimeoutError());
        return;
    }
    d_->idleTimer_->schedule(idle - elapsed);
}

}  // namespace kavrin
