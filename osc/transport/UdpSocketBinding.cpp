#include "osc/transport/UdpSocket.hpp"

#include <sys/socket.h>

#include "osc/transport/detail/Fail.hpp"
#include "osc/transport/detail/InterfaceAddresses.hpp"
#include "osc/transport/detail/SockaddrView.hpp"
#include "osc/transport/detail/UdpSocketInternals.hpp"
#include "osc/transport/detail/UdpSpecialPacket.hpp"

// Binding to local addresses and connecting to one peer. A connect request waits its turn in the
// send queue, so that it is ordered with the sends around it.

namespace kavrin {

using namespace udpSocket;

bool UdpSocket::bindToPort(std::uint16_t port, UdpSocketError* error) {
    return bindToPort(port, std::nullopt, error);
}

bool UdpSocket::bindToPort(std::uint16_t port, const std::optional<std::string>& interface,
                           UdpSocketError* error) {
    return d_->query([&] {
        if (!bindPreCheck(error)) {
            return false;
        }
        const auto local = InterfaceAddresses::lookUp(interface, port);
        return bindAddresses(local.ipv4, local.ipv6, error);
    });
}

bool UdpSocket::bindToAddress(const SocketAddress& address, UdpSocketError* error) {
    return d_->query([&] {
        if (!bindPreCheck(error)) {
            return false;
        }
        return bindAddresses(address.isIPv4() ? address : SocketAddress{},
                             address.isIPv6() ? address : SocketAddress{}, error);
    });
}

bool UdpSocket::bindPreCheck(UdpSocketError* error) const {
    if (!d_->preCheck(error)) {
        return false;
    }
    if (d_->flags_ & kBound) {
        return fail(error, UdpSocketError::badConfigError("Cannot bind a socket more than once."));
    }
    if (d_->flags_ & (kConnecting | kConnected)) {
        return fail(error, UdpSocketError::badConfigError(
                               "Cannot bind after connecting. If needed, bind first, then "
                               "connect."));
    }
    if ((d_->config_ & (kIPv4Disabled | kIPv6Disabled)) == (kIPv4Disabled | kIPv6Disabled)) {
        return fail(error, UdpSocketError::badConfigError(
                               "Both IPv4 and IPv6 have been disabled. Must enable at least one "
                               "protocol first."));
    }
    return true;
}

bool UdpSocket::bindAddresses(const SocketAddress& address4, const SocketAddress& address6,
                              UdpSocketError* error) {
    const bool ipv4Disabled = (d_->config_ & kIPv4Disabled) != 0;
    const bool ipv6Disabled = (d_->config_ & kIPv6Disabled) != 0;
    if (address4.empty() && address6.empty()) {
        return fail(error,
                    UdpSocketError::badParamError(InterfaceAddresses::unknownInterfaceText));
    }
    if (ipv4Disabled && address6.empty()) {
        return fail(error, UdpSocketError::badParamError(
                               "IPv4 has been disabled and specified interface doesn't support "
                               "IPv6."));
    }
    if (ipv6Disabled && address4.empty()) {
        return fail(error, UdpSocketError::badParamError(
                               "IPv6 has been disabled and specified interface doesn't support "
                               "IPv4."));
    }
    const bool use4 = !ipv4Disabled && !address4.empty();
    const bool use6 = !ipv6Disabled && !address6.empty();
    if (!(d_->flags_ & kSocketsCreated) && !createSockets(use4, use6, error)) {
        return false;
    }
    auto bindOne = [&](const Family& f, const SocketAddress& address) {
        if (::bind(f.fd, sockaddrOf(address), lengthOf(address)) == 0) {
            return true;
        }
        fail(error, UdpSocketError::errnoError("Error in bind() function"));
        closeSocket(d_->socket4_, true);
        closeSocket(d_->socket6_, false);
        // Nothing is left open, so the next bind, send or reuse makes fresh descriptors.
        d_->flags_ &= ~kSocketsCreated;
        return false;
    };
    if (use4 && !bindOne(d_->socket4_, address4)) {
        return false;
    }
    // Port 0 lets the kernel pick: IPv6 then takes the port IPv4 got, so that one number
    // serves both families.
    SocketAddress local6 = address6;
    if (use4 && use6 && address6.port() == 0) {
        local6 = address6.withPort(localAddressOf(true).port());
    }
    if (use6 && !bindOne(d_->socket6_, local6)) {
        return false;
    }
    d_->flags_ |= kBound;
    if (!use4) {
        d_->flags_ |= kIPv4Deactivated;
    }
    if (!use6) {
        d_->flags_ |= kIPv6Deactivated;
    }
    return true;
}

bool UdpSocket::connectPreCheck(UdpSocketError* error) const {
    if (!d_->preCheck(error)) {
        return false;
    }
    if (d_->flags_ & (kConnecting | kConnected)) {
        return fail(error,
                    UdpSocketError::badConfigError("Cannot connect a socket more than once."));
    }
    return true;
}

bool UdpSocket::connectToHost(const std::string& host, std::uint16_t port, UdpSocketError* error) {
    return d_->query([&] {
        if (!connectPreCheck(error)) {
            return false;
        }
        d_->flags_ |= kConnecting;
        auto packet = std::make_shared<UdpSpecialPacket>();
        packet->resolveInProgress = true;
        kResolver.resolve(host, port, d_->socketQueue_,
                          [self = shared_from_this(), packet](std::vector<SocketAddress> addresses,
                                                              std::optional<SocketError> error) {
                              packet->resolveInProgress = false;
                              packet->addresses = std::move(addresses);
                              if (error) packet->error = UdpSocketError(std::move(*error));
                              if (packet == self->d_->currentSpecial_) {
                                  self->maybeConnect();
                              }
                          });
        d_->sendQueue_.push_back(packet);
        maybeDequeueSend();
        return true;
    });
}

bool UdpSocket::connectToAddress(const SocketAddress& address, UdpSocketError* error) {
    return d_->query([&] {
        if (!connectPreCheck(error)) {
            return false;
        }
        if (address.empty()) {
            return fail(error, UdpSocketError::badParamError(
                                   "The address param is nil. Should be a valid address."));
        }
        if (!address.isIPv4() && !address.isIPv6()) {
            return fail(error, UdpSocketError::badParamError(kInvalidAddress));
        }
        d_->flags_ |= kConnecting;
        auto packet = std::make_shared<UdpSpecialPacket>();
        packet->addresses = {address};
        d_->sendQueue_.push_back(packet);
        maybeDequeueSend();
        return true;
    });
}

void UdpSocket::maybeConnect() {
    const auto packet = d_->currentSpecial_;
    if (packet->resolveInProgress) {
        return;  // the resolver's completion comes back here
    }
    UdpSocketError error;
    SocketAddress address;
    int family = 0;
    bool connected = false;
    if (packet->error) {
        error = *packet->error;
    } else if (getAddress(&address, &family, &error, packet->addresses)) {
        connected = connectWithAddress(address, family, &error);
    }
    d_->flags_ &= ~kConnecting;
    if (connected) {
        notifyDelegate([address](UdpSocketDelegate& d, UdpSocket& s) {
            d.udpSocketDidConnectToAddress(s, address);
        });
    } else {
        notifyDelegate(
            [error](UdpSocketDelegate& d, UdpSocket& s) { d.udpSocketDidNotConnect(s, error); });
    }
    endCurrentSend();
    maybeDequeueSend();
}

bool UdpSocket::connectWithAddress(const SocketAddress& address, int family,
                                   UdpSocketError* error) {
    const bool isIPv4 = family == AF_INET;
    if (!(d_->flags_ & kSocketsCreated) && !createSockets(isIPv4, !isIPv4, error)) {
        return false;
    }
    Family& f = isIPv4 ? d_->socket4_ : d_->socket6_;
    if (::connect(f.fd, sockaddrOf(address), lengthOf(address)) != 0) {
        return fail(error, UdpSocketError::errnoError("Error in connect() function"));
    }
    // The other family is of no further use: only the peer is heard from.
    closeSocket(isIPv4 ? d_->socket6_ : d_->socket4_, !isIPv4);
    d_->flags_ |= isIPv4 ? kIPv6Deactivated : kIPv4Deactivated;
    d_->flags_ |= kConnected;
    d_->cachedConnectedAddress_ = address;
    d_->cachedConnectedHost_ = address.host();
    d_->cachedConnectedPort_ = address.port();
    d_->cachedConnectedFamily_ = family;
    return true;
}

}  // namespace kavrin
