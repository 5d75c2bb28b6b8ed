#pragma once

#include <vector>

#include "osc/transport/SocketAddress.hpp"
#include "osc/transport/UdpSocketError.hpp"

namespace kavrin {

/// What a socket allows of one IP family when it chooses where to send.
struct FamilyAllowance {
    bool disabled = false;     ///< turned off in the socket's configuration
    bool deactivated = false;  ///< left without a descriptor by a bind or connect
    bool preferred = false;
};

/// Chooses the destination among a name's addresses (in the resolver's order): the first
/// address of the preferred family, or without a preference the first address. A family that is
/// disabled or deactivated is never chosen. Sets *chosen, or fails with an "other" error naming
/// the family that was turned off when only its addresses were found; *chosen is untouched then.
/// Stops the program for no addresses, an address that is neither IPv4 nor IPv6, or both
/// families preferred. A pure function, safe from any thread. Internal to the transport layer.
bool chooseDestination(const std::vector<SocketAddress>& addresses, const FamilyAllowance& ipv4,
                       const FamilyAllowance& ipv6, SocketAddress* chosen, UdpSocketError* error);

}  // namespace kavrin
