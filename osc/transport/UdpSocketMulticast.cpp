#include "osc/transport/UdpSocket.hpp"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>

#include "osc/transport/detail/Fail.hpp"
#include "osc/transport/detail/InterfaceAddresses.hpp"
#include "osc/transport/detail/UdpSocketInternals.hpp"

// Multicast group membership and the interface multicast is sent from: an IPv4 interface by
// address, an IPv6 one by name (its index).

namespace kavrin {

using namespace udpSocket;

bool UdpSocket::joinMulticastGroup(const std::string& group, UdpSocketError* error) {
    return changeMulticastMembership(group, std::nullopt, true, error);
}

bool UdpSocket::joinMulticastGroup(const std::string& group,
                                   const std::optional<std::string>& interface,
                                   UdpSocketError* error) {
    return changeMulticastMembership(group, interface, true, error);
}

bool UdpSocket::leaveMulticastGroup(const std::string& group, UdpSocketError* error) {
    return changeMulticastMembership(group, std::nullopt, false, error);
}

bool UdpSocket::leaveMulticastGroup(const std::string& group,
                                    const std::optional<std::string>& interface,
                                    UdpSocketError* error) {
    return changeMulticastMembership(group, interface, false, error);
}

bool UdpSocket::changeMulticastMembership(const std::string& group,
                                          const std::optional<std::string>& interface, bool join,
                                          UdpSocketError* error) {
    return d_->query([&] {
        if (!d_->preCheck(error)) {
            return false;
        }
        if (!(d_->flags_ & kBound)) {
            return fail(error, UdpSocketError::badConfigError(
                                   "Must bind a socket before joining a multicast group."));
        }
        if (d_->flags_ & (kConnecting | kConnected)) {
            return fail(error, UdpSocketError::badConfigError(
                                   "Cannot join a multicast group if connected."));
        }
        in_addr group4{};
        in6_addr group6{};
        const bool isGroup4 = ::inet_pton(AF_INET, group.c_str(), &group4) == 1;
        const bool isGroup6 = !isGroup4 && ::inet_pton(AF_INET6, group.c_str(), &group6) == 1;
        if (!isGroup4 && !isGroup6) {
            return fail(error, UdpSocketError::badConfigError(
                                   "Unknown group. Specify valid group IP address."));
        }
        const auto [interface4, interface6] = InterfaceAddresses::lookUp(interface, 0);
        int status = 0;
        if (d_->socket4_.fd != -1 && isGroup4 && !interface4.empty()) {
            sockaddr_in local{};
            std::memcpy(&local, interface4.data(), sizeof local);
            ip_mreq request{};
            request.imr_multiaddr = group4;
            request.imr_interface = local.sin_addr;
            status =
                ::setsockopt(d_->socket4_.fd, IPPROTO_IP, join ? IP_ADD_MEMBERSHIP : IP_DROP_MEMBERSHIP,
                             &request, sizeof request);
        } else if (d_->socket6_.fd != -1 && isGroup6 && !interface6.empty()) {
            ipv6_mreq request{};
            request.ipv6mr_multiaddr = group6;
            request.ipv6mr_interface = interface ? ::if_nametoindex(interface->c_str()) : 0;
            status =
                ::setsockopt(d_->socket6_.fd, IPPROTO_IPV6, join ? IPV6_JOIN_GROUP : IPV6_LEAVE_GROUP,
                             &request, sizeof request);
        } else {
            return fail(error,
                        UdpSocketError::badParamError(
                            "Socket, group, and interface do not have matching IP versions"));
        }
        if (status != 0) {
            return fail(error, UdpSocketError::errnoError("Error in setsockopt() function"));
        }
        return true;
    });
}

bool UdpSocket::sendIPv4MulticastOnInterface(const std::string& interface, UdpSocketError* error) {
    return d_->query([&] {
        if (!d_->preCheck(error) || !ensureSockets(error)) {
            return false;
        }
        const SocketAddress local = InterfaceAddresses::lookUp(interface, 0).ipv4;
        if (local.empty() || d_->socket4_.fd == -1) {
            return fail(error, UdpSocketError::badParamError(
                                   "Unknown interface. Specify valid interface by IP address."));
        }
        sockaddr_in in{};
        std::memcpy(&in, local.data(), sizeof in);
        if (::setsockopt(d_->socket4_.fd, IPPROTO_IP, IP_MULTICAST_IF, &in.sin_addr,
                         sizeof in.sin_addr) != 0) {
            return fail(error, UdpSocketError::errnoError("Error in setsockopt() function"));
        }
        return true;
    });
}

bool UdpSocket::sendIPv6MulticastOnInterface(const std::string& interface, UdpSocketError* error) {
    return d_->query([&] {
        if (!d_->preCheck(error) || !ensureSockets(error)) {
            return false;
        }
        const unsigned index = ::if_nametoindex(interface.c_str());
        if (index == 0 || d_->socket6_.fd == -1) {
            return fail(error,
                        UdpSocketError::badParamError(
                            "Unknown interface. Specify valid interface by name (e.g. \"en1\")."));
        }
        if (::setsockopt(d_->socket6_.fd, IPPROTO_IPV6, IPV6_MULTICAST_IF, &index, sizeof index) != 0) {
            return fail(error, UdpSocketError::errnoError("Error in setsockopt() function"));
        }
        return true;
    });
}

}  // namespace kavrin
