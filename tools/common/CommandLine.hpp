#pragma once

#include <charconv>
#include <cstdint>
#include <optional>
#include <string_view>

namespace kavrin::tools {

// A port number as a command line gives it: decimal digits only, 0 to 65535.
inline std::optional<std::uint16_t> parsePort(std::string_view text) {
    unsigned value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value > 65535) {
        return std::nullopt;
    }
    return static_cast<std::uint16_t>(value);
}

}  // namespace kavrin::tools
