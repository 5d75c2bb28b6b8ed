#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kavrin {

/// The DNS-SD service types of OSC: datagrams, a TCP stream (TXT framing=slip for SLIP, else
/// each packet after its size) and an OSCQuery server's HTTP port.
inline constexpr std::string_view oscUdpServiceType = "_osc._udp";
inline constexpr std::string_view oscTcpServiceType = "_osc._tcp";
inline constexpr std::string_view oscQueryServiceType = "_oscjson._tcp";

/// A service on the network: what an advertiser publishes and a browser reports. A plain value.
struct OSCService {
    OSCService() = default;
    OSCService(std::string name, std::string type, std::uint16_t port,
               std::map<std::string, std::string> txt = {})
        : name(std::move(name)), type(std::move(type)), port(port), txt(std::move(txt)) {}

    std::string name;  ///< "Kavrin on studio", unique per type and domain
    std::string type;  ///< one of the types above, or any other DNS-SD type
    std::uint16_t port = 0;
    /// TXT records, key to value; a key without a value maps to an empty text.
    std::map<std::string, std::string> txt;

    // Filled in by a browser only.
    std::string domain;               ///< "local"
    std::string hostName;             ///< as the daemon resolved it: "studio.local"
    std::vector<std::string> addresses;  ///< numeric, IPv4 ones first

    friend bool operator==(const OSCService&, const OSCService&) = default;
};

/// How an advertiser's or a browser's link to the Avahi daemon stands. A plain value.
struct OSCZeroconfStatus {
    enum class State {
        connecting,         ///< not yet known
        running,            ///< published, or browsing
        daemonNotRunning,   ///< waiting for the daemon, which is looked for again and again
        failed,             ///< see text; tried again after a while
    };
    State state = State::connecting;
    /// For people: "the Avahi daemon is not running", "published as \"Kavrin #2\"", ...
    std::string text;

    friend bool operator==(const OSCZeroconfStatus&, const OSCZeroconfStatus&) = default;
};

}  // namespace kavrin
