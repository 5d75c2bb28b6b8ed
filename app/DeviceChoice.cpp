#include "app/DeviceChoice.hpp"

#include <arpa/inet.h>

#include <algorithm>

namespace kavrin {
namespace {

bool isIPv4(const std::string& address) {
    in_addr parsed{};
    return ::inet_pton(AF_INET, address.c_str(), &parsed) == 1;
}

// The browser lists IPv4 addresses first; an IPv6 one serves where there is none.
std::optional<std::string> addressOf(const OSCService& service) {
    if (service.addresses.empty()) return std::nullopt;
    return service.addresses.front();
}

bool saysSlip(const OSCService& service) {
    const auto framing = service.txt.find("framing");
    return framing != service.txt.end() && framing->second == "slip";
}

}  // namespace

std::optional<DeviceChoice> DeviceChoice::of(const OSCService& service) {
    const auto address = addressOf(service);
    if (!address) return std::nullopt;
    if (service.type == oscUdpServiceType) {
        return DeviceChoice{*address, service.port, MonitorLink::Transport::udp};
    }
    if (service.type == oscTcpServiceType && !service.txt.contains("tls")) {
        return DeviceChoice{*address, service.port,
                            saysSlip(service) ? MonitorLink::Transport::slip : MonitorLink::Transport::tcp};
    }
    return std::nullopt;
}

std::optional<DeviceChoice> DeviceChoice::of(const OSCService& service, const OSCQueryHostInfo& info,
                                             const std::vector<OSCService>& others) {
    // OSC_IP may be a name, or the unspecified address of a server bound to every interface.
    auto address = isIPv4(info.oscAddress) && info.oscAddress != "0.0.0.0"
                       ? std::optional(info.oscAddress)
                       : addressOf(service);
    if (!address || info.oscPort == 0) return std::nullopt;
    if (info.oscTransport == OSCQueryTransport::udp) {
        return DeviceChoice{*address, info.oscPort, MonitorLink::Transport::udp};
    }
    const bool slip = std::any_of(others.begin(), others.end(), [&](const OSCService& other) {
        return other.type == oscTcpServiceType && other.port == info.oscPort && saysSlip(other) &&
               std::find(other.addresses.begin(), other.addresses.end(), *address) !=
                   other.addresses.end();
    });
    return DeviceChoice{*address, info.oscPort,
                        slip ? MonitorLink::Transport::slip : MonitorLink::Transport::tcp};
}

}  // namespace kavrin
