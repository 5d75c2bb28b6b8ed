// Where the pings go for each kind of service found: by its type, its TXT record, and for an
// OSCQuery service its HOST_INFO.

#include "app/DeviceChoice.hpp"

namespace kavrin {
namespace {

using Transport = MonitorLink::Transport;

OSCService found(std::string type, std::uint16_t port, std::vector<std::string> addresses,
                 std::map<std::string, std::string> txt = {}) {
    OSCService service("Desk", std::move(type), port, std::move(txt));
    service.addresses = std::move(addresses);
    return service;
}

const std::vector<std::string> bothFamilies = {"192.168.1.20", "fe80::1"};

TEST(DeviceChoice, FollowsTheTypeTheFramingAndAnOSCQueryDevicesHostInfoAndPrefersIPv4) {
    const struct {
        OSCService service;
        std::optional<DeviceChoice> choice;
    } cases[] = {
        {found("_osc._udp", 8000, bothFamilies), DeviceChoice{"192.168.1.20", 8000, Transport::udp}},
        {found("_osc._tcp", 3032, bothFamilies), DeviceChoice{"192.168.1.20", 3032, Transport::tcp}},
        {found("_osc._tcp", 3032, bothFamilies, {{"framing", "length"}}),
         DeviceChoice{"192.168.1.20", 3032, Transport::tcp}},
        {found("_osc._tcp", 3037, bothFamilies, {{"framing", "slip"}}),
         DeviceChoice{"192.168.1.20", 3037, Transport::slip}},
        {found("_osc._udp", 8000, {"fe80::1"}), DeviceChoice{"fe80::1", 8000, Transport::udp}},
        {found("_osc._tcp", 3037, bothFamilies, {{"framing", "slip"}, {"tls", "yes"}}), std::nullopt},
        {found("_osc._udp", 8000, {}), std::nullopt},
        {found("_oscjson._tcp", 5678, bothFamilies), std::nullopt},  // needs its HOST_INFO
    };
    for (const auto& c : cases) {
        EXPECT_EQ(DeviceChoice::of(c.service), c.choice)
            << c.service.type << " port " << c.service.port << ", " << c.service.addresses.size()
            << " addresses, " << c.service.txt.size() << " TXT records";
    }

    // An OSCQuery device by its HOST_INFO, and its stream port's record, which says how it frames.
    const OSCService query = found("_oscjson._tcp", 5678, bothFamilies);
    const std::vector<OSCService> others = {query, found("_osc._tcp", 3037, bothFamilies, {{"framing", "slip"}})};
    const auto info = [](std::string address, std::uint16_t port, OSCQueryTransport transport) {
        return OSCQueryHostInfo{"", std::move(address), port, transport, {}};
    };
    const struct {
        OSCQueryHostInfo info;
        std::optional<DeviceChoice> choice;
    } queryCases[] = {
        {info("", 8000, OSCQueryTransport::udp), DeviceChoice{"192.168.1.20", 8000, Transport::udp}},
        {info("10.0.0.5", 8000, OSCQueryTransport::udp), DeviceChoice{"10.0.0.5", 8000, Transport::udp}},
        {info("0.0.0.0", 8000, OSCQueryTransport::udp), DeviceChoice{"192.168.1.20", 8000, Transport::udp}},
        {info("desk.local", 8000, OSCQueryTransport::udp), DeviceChoice{"192.168.1.20", 8000, Transport::udp}},
        {info("", 3037, OSCQueryTransport::tcp), DeviceChoice{"192.168.1.20", 3037, Transport::slip}},
        {info("", 3032, OSCQueryTransport::tcp), DeviceChoice{"192.168.1.20", 3032, Transport::tcp}},
        {info("10.0.0.5", 3037, OSCQueryTransport::tcp), DeviceChoice{"10.0.0.5", 3037, Transport::tcp}},
        {info("", 0, OSCQueryTransport::udp), std::nullopt},
    };
    for (const auto& c : queryCases) {
        EXPECT_EQ(DeviceChoice::of(query, c.info, others), c.choice)
            << "OSC_IP \"" << c.info.oscAddress << "\", OSC_PORT " << c.info.oscPort;
    }
}

}  // namespace
}  // namespace kavrin
