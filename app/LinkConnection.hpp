#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace kavrin {

// The monitor's connection to the console over tcp or slip, as the window shows it. A plain value.
struct LinkConnection {
    enum class State {
        none,        // udp: no connection
        connecting,  // connecting, or looking the name up
        connected,
        waiting,     // refused or closed; connects again at `retryAt`
    };
    State state = State::none;
    std::string transport;  // "tcp" or "slip"
    std::string host;
    std::uint16_t port = 0;
    // How the last connection ended: whether it had opened, whether it was refused, and why it
    // ended or failed (no reason when the console closed it in order).
    bool wasConnected = false;
    bool refused = false;
    std::optional<std::string> reason;
    std::optional<std::chrono::steady_clock::time_point> retryAt;
    // That the console seems to frame the other way ("slip" or "tcp"): its bytes broke this
    // framing as that one's would, or it hung up after pings without answering one.
    struct FramingHint {
        std::string framing;
        bool fromBytes;
    };
    std::optional<FramingHint> framingHint;
};

}  // namespace kavrin
