#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "app/MonitorLink.hpp"
#include "osc/discovery/OSCService.hpp"
#include "osc/query/OSCQueryNode.hpp"

namespace kavrin {

// Where the pings go when a device found on the network is chosen: a numeric address, since a
// .local name needs mDNS name lookup, which the machine may lack; the port; and the link. A
// plain value.
struct DeviceChoice {
    std::string host;
    std::uint16_t port = 0;
    MonitorLink::Transport transport = MonitorLink::Transport::udp;

    // For a _osc._udp or _osc._tcp service: its first IPv4 address (else its first address), its
    // port, and udp; over TCP slip when the TXT record says framing=slip, else tcp. None for a
    // service without an address, over TLS (which the link does not speak), or of another type.
    static std::optional<DeviceChoice> of(const OSCService& service);
    // For an OSCQuery service whose HOST_INFO is `info`: OSC_IP when it is a usable IPv4 address,
    // else the service's own address; OSC_PORT; and udp or tcp. OSCQuery names no framing, so
    // TCP is slip when one of `others` is a _osc._tcp service at that address and port that says
    // framing=slip. None without an OSC port or an address.
    static std::optional<DeviceChoice> of(const OSCService& service, const OSCQueryHostInfo& info,
                                          const std::vector<OSCService>& others);

    friend bool operator==(const DeviceChoice&, const DeviceChoice&) = default;
};

}  // namespace kavrin
