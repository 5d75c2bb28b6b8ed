#include "osc/transport/detail/DestinationChoice.hpp"

#include "osc/transport/detail/Fail.hpp"
#include "support/FatalError.hpp"

namespace kavrin {

bool chooseDestination(const std::vector<SocketAddress>& addresses, const FamilyAllowance& ipv4,
                       const FamilyAllowance& ipv6, SocketAddress* chosen, UdpSocketError* error) {
    if (addresses.empty()) {
        fatalError("Expected at least one address");
    }
    bool has4 = false;
    bool has6 = false;
    for (const SocketAddress& a : addresses) {
        if (a.isIPv4()) {
            has4 = true;
        } else if (a.isIPv6()) {
            has6 = true;
        } else {
            fatalError("Addresses array contains invalid address");
        }
    }
    if (ipv4.disabled && !has6) {
        return fail(error, UdpSocketError::otherError(
                               "IPv4 has been disabled and DNS lookup found no IPv6 address(es)."));
    }
    if (ipv6.disabled && !has4) {
        return fail(error, UdpSocketError::otherError(
                               "IPv6 has been disabled and DNS lookup found no IPv4 address(es)."));
    }
    if (ipv4.deactivated && !has6) {
        return fail(error, UdpSocketError::otherError(
                               "IPv4 has been deactivated due to bind/connect, and DNS lookup "
                               "found no IPv6 address(es)."));
    }
    if (ipv6.deactivated && !has4) {
        return fail(error, UdpSocketError::otherError(
                               "IPv6 has been deactivated due to bind/connect, and DNS lookup "
                               "found no IPv4 address(es)."));
    }
    const SocketAddress* first4 = nullptr;
    const SocketAddress* first6 = nullptr;
    bool ipv4First = false;
    for (const SocketAddress& a : addresses) {
        if (!first4 && a.isIPv4()) {
            first4 = &a;
            ipv4First = first6 == nullptr;
        } else if (!first6 && a.isIPv6()) {
            first6 = &a;
        }
    }
    if (ipv4.preferred && ipv6.preferred) {
        fatalError("Invalid config (cannot prefer both IPv4 and IPv6)");
    }
    bool use4;
    if (first4 && first6) {
        // A family that was disabled or deactivated has no descriptor to send on, whatever the
        // preference or the resolver's order say.
        const bool usable4 = !ipv4.disabled && !ipv4.deactivated;
        const bool usable6 = !ipv6.disabled && !ipv6.deactivated;
        if (usable4 != usable6) {
            use4 = usable4;
        } else {
            use4 = ipv4.preferred || (!ipv6.preferred && ipv4First);
        }
    } else {
        use4 = first4 != nullptr;
    }
    *chosen = use4 ? *first4 : *first6;
    return true;
}

}  // namespace kavrin
