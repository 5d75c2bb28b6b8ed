#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "osc/transport/TcpSocket.hpp"
#include "osc/transport/detail/Fail.hpp"
#include "osc/transport/detail/InterfaceAddresses.hpp"
#include "osc/transport/detail/SockaddrView.hpp"
#include "osc/transport/detail/TcpSocketInternals.hpp"

// Connecting: the host's name is looked up off the queues, then its addresses are tried in
// order, each with a non-blocking connect that completes when the descriptor turns writable.

namespace kavrin {

using namespace tcpSocket;

bool TcpSocket::connectToHost(const std::string& host, std::uint16_t port, double timeout,
                              TcpSocketError* error) {
    return connectToHost(host, port, std::nullopt, timeout, error);
}

bool TcpSocket::connectToHost(const std::string& host, std::uint16_t port,
                              const std::optional<std::string>& interface, double timeout,
                              TcpSocketError* error) {
    if (host.empty()) {
        return fail(error, TcpSocketError::badParamError(
                               "The host param is empty. Should be domain name or IP address "
                               "string."));
    }
    return d_->query([&] { return startConnect(host, port, std::nullopt, interface, timeout, error); });
}

bool TcpSocket::connectToAddress(const SocketAddress& address, double timeout,
                                 TcpSocketError* error) {
    return connectToAddress(address, std::nullopt, timeout, error);
}

bool TcpSocket::connectToAddress(const SocketAddress& address,
                                 const std::optional<std::string>& interface, double timeout,
                                 TcpSocketError* error) {
    if (!address.isIPv4() && !address.isIPv6()) {
        return fail(error, TcpSocketError::badParamError(
                               "The address param is not a valid IPv4 or IPv6 socket address."));
    }
    return d_->query(
        [&] { return startConnect(address.host(), address.port(), address, interface, timeout, error); });
}

bool TcpSocket::startConnect(const std::string& host, std::uint16_t port,
                             const std::optional<SocketAddress>& address,
                             const std::optional<std::string>& interface, double timeout,
                             TcpSocketError* error) {
    if (!startCheck(error)) {
        return false;
    }
    if (interface) {
        const auto local = InterfaceAddresses::lookUp(interface, 0);
        if (local.ipv4.empty() && local.ipv6.empty()) {
            return fail(error, TcpSocketError::badParamError(InterfaceAddresses::unknownInterfaceText));
        }
    }
    d_->flags_ |= kConnecting;
    d_->connectInterface_ = interface;
    d_->connectedHost_ = host;
    const std::uint64_t attempt = ++d_->attempt_;
    armTimer(d_->connectTimer_, timeout, [](TcpSocket& s) {
        s.closeWithError(TcpSocketError::connectTimeoutError());
    });
    if (address) {
        didResolve(attempt, {*address}, std::nullopt);
        return true;
    }
    kResolver.resolve(host, port, d_->socketQueue_,
                      [self = shared_from_this(), attempt](std::vector<SocketAddress> addresses,
                                                           std::optional<SocketError> error) {
                          std::optional<TcpSocketError> failure;
                          if (error) failure = TcpSocketError(std::move(*error));
                          self->didResolve(attempt, std::move(addresses), std::move(failure));
                      });
    return true;
}

void TcpSocket::didResolve(std::uint64_t attempt, std::vector<SocketAddress> addresses,
                           std::optional<TcpSocketError> error) {
    if (attempt != d_->attempt_ || !(d_->flags_ & kConnecting)) {
        return;  // disconnected, or timed out, meanwhile
    }
    if (error) {
        closeWithError(std::move(error));
        return;
    }
    d_->candidates_ = std::move(addresses);
    d_->nextCandidate_ = 0;
    tryNextAddress();
}

// Tries the candidates from d_->nextCandidate_ until a connect is under way; with none left, the
// last failure ends the attempt.
void TcpSocket::tryNextAddress() {
    while (d_->nextCandidate_ < d_->candidates_.size()) {
        const SocketAddress& address = d_->candidates_[d_->nextCandidate_++];
        const int family = address.family();
        SocketAddress local;
        if (d_->connectInterface_) {
            const auto addresses = InterfaceAddresses::lookUp(d_->connectInterface_, 0);
            local = family == AF_INET ? addresses.ipv4 : addresses.ipv6;
            if (local.empty()) {
                d_->lastConnectError_ = TcpSocketError::badParamError(InterfaceAddresses::unknownInterfaceText);
                continue;  // the interface has no address of this family
            }
        }
        const int fd = ::socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (fd == -1) {
            d_->lastConnectError_ = TcpSocketError::errnoError("Error in socket() function");
            continue;
        }
        TcpSocketError failure;
        bool started = applyOptions(fd, &failure);
        if (started && !local.empty() && ::bind(fd, sockaddrOf(local), lengthOf(local)) != 0) {
            failure = TcpSocketError::errnoError("Error in bind() function");
            started = false;
        }
        if (started && ::connect(fd, sockaddrOf(address), lengthOf(address)) != 0 &&
            errno != EINPROGRESS) {
            failure = TcpSocketError::errnoError("Error in connect() function");
            started = false;
        }
        if (!started) {
            ::close(fd);
            d_->lastConnectError_ = std::move(failure);
            continue;
        }
        d_->connection_.fd = fd;
        if (!openSources(d_->connection_, true, &failure)) {
            d_->lastConnectError_ = std::move(failure);
            continue;
        }
        // Even an immediate success is reported once the descriptor turns writable, so that
        // both paths report the same way.
        d_->flags_ |= kConnectWaits;
        updateSources();
        return;
    }
    closeWithError(d_->lastConnectError_
                       ? std::move(d_->lastConnectError_)
                       : TcpSocketError::badParamError("The host has no address to connect to."));
}

void TcpSocket::finishConnect() {
    d_->flags_ &= ~kConnectWaits;
    int code = 0;
    socklen_t length = sizeof code;
    if (::getsockopt(d_->connection_.fd, SOL_SOCKET, SO_ERROR, &code, &length) != 0) {
        code = errno;
    }
    if (code != 0) {
        errno = code;
        d_->lastConnectError_ = TcpSocketError::errnoError("Error in connect() function");
        closeDescriptor(d_->connection_);
        tryNextAddress();
        return;
    }
    didConnect();
}

void TcpSocket::didConnect() {
    cancelTimer(d_->connectTimer_);
    d_->flags_ = (d_->flags_ & ~kConnecting) | kConnected;
    d_->candidates_.clear();
    d_->lastConnectError_.reset();
    cacheAddresses(d_->connection_.fd);
    d_->lastActivity_ = State::Clock::now();
    d_->notifyDelegate([host = d_->connectedHost_, port = d_->connectedAddress_.port()](TcpSocketDelegate& d,
                                                                            TcpSocket& s) {
        d.socketDidConnect(s, host, port);
    });
    continueReading();
    continueWriting();
}

}  // namespace kavrin
