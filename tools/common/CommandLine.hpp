#pragma once

#include <charconv>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "osc/stream/OSCFraming.hpp"
#include "osc/transport/SocketError.hpp"

namespace kavrin::tools {

// An error as a tool reports it: its description, then the failing step or the reason, if known.
inline std::string errorText(const SocketError& error) {
    return error.description() +
           (error.failureReason() ? " (" + *error.failureReason() + ")" : std::string());
}

// A port number as a command line gives it: decimal digits only, 0 to 65535.
inline std::optional<std::uint16_t> parsePort(std::string_view text) {
    unsigned value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value > 65535) {
        return std::nullopt;
    }
    return static_cast<std::uint16_t>(value);
}

// How a tool carries OSC: --udp (the default), --tcp or --slip, each optionally with --tls.
struct TransportOptions {
    enum class Mode { udp, tcp, slip } mode = Mode::udp;
    bool tls = false;

    // Takes one of the four options; false for any other.
    bool take(std::string_view option) {
        if (option == "--udp") {
            mode = Mode::udp;
        } else if (option == "--tcp") {
            mode = Mode::tcp;
        } else if (option == "--slip") {
            mode = Mode::slip;
        } else if (option == "--tls") {
            tls = true;
        } else {
            return false;
        }
        return true;
    }
    // What is wrong with the combination, empty when nothing is.
    std::string_view problem() const {
        return tls && mode == Mode::udp ? "--tls goes with --tcp or --slip" : "";
    }
    OSCFraming framing() const {
        return mode == Mode::slip ? OSCFraming::slip : OSCFraming::lengthPrefixed;
    }
};

}  // namespace kavrin::tools
