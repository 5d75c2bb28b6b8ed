#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "osc/transport/SocketAddress.hpp"

namespace kavrin {

/// The local addresses, one per IP family, that an interface argument names: what a socket binds
/// to or sends multicast from. Either address may be empty (the interface has none of that
/// family); both empty means an unknown interface. Safe from any thread. Internal to the
/// transport layer.
struct InterfaceAddresses {
    /// What a socket says when both are empty.
    static constexpr const char* unknownInterfaceText =
        "Unknown interface. Specify valid interface by name (e.g. \"en1\") or IP address.";

    SocketAddress ipv4;
    SocketAddress ipv6;

    /// interface: none → the wildcard address of each family; "localhost" or "loopback" →
    /// 127.0.0.1 and ::1; otherwise the first address of each family of the interface of that
    /// name ("eth0") or holding that numeric address, else the numeric address itself. Each
    /// address carries port (host order).
    static InterfaceAddresses lookUp(const std::optional<std::string>& interface,
                                     std::uint16_t port);
    static InterfaceAddresses loopback(std::uint16_t port);
    /// The names that mean the loopback addresses, to a bind as to a name lookup.
    static bool isLoopbackName(std::string_view name);
};

}  // namespace kavrin
