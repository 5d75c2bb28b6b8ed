#include "osc/transport/detail/InterfaceAddresses.hpp"

#include <ifaddrs.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace kavrin {

InterfaceAddresses InterfaceAddresses::lookUp(const std::optional<std::string>& interface,
                                              std::uint16_t port) {
    if (!interface) {
        return {SocketAddress::ipv4(in_addr{htonl(INADDR_ANY)}, port),
                SocketAddress::ipv6(in6addr_any, port)};
    }
    if (isLoopbackName(*interface)) {
        return loopback(port);
    }
    InterfaceAddresses found;
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) == 0) {
        for (ifaddrs* ifa = list; ifa; ifa = ifa->ifa_next) {
            if (!ifa->ifa_addr) {
                continue;
            }
            const int family = ifa->ifa_addr->sa_family;
            SocketAddress& slot = family == AF_INET ? found.ipv4 : found.ipv6;
            if ((family != AF_INET && family != AF_INET6) || !slot.empty()) {
                continue;
            }
            const SocketAddress candidate =
                SocketAddress(ifa->ifa_addr,
                              family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6))
                    .withPort(port);
            if (*interface == ifa->ifa_name || *interface == candidate.host()) {
                slot = candidate;
            }
        }
        ::freeifaddrs(list);
    }
    if (found.ipv4.empty() && found.ipv6.empty()) {
        const SocketAddress numeric = SocketAddress::fromNumericHost(*interface, port);
        (numeric.isIPv4() ? found.ipv4 : found.ipv6) = numeric;
    }
    return found;
}

InterfaceAddresses InterfaceAddresses::loopback(std::uint16_t port) {
    return {SocketAddress::ipv4(in_addr{htonl(INADDR_LOOPBACK)}, port),
            SocketAddress::ipv6(in6addr_loopback, port)};
}

bool InterfaceAddresses::isLoopbackName(std::string_view name) {
    return name == "localhost" || name == "loopback";
}

}  // namespace kavrin
