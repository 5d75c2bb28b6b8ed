#include "support/LogLevel.hpp"

#include <algorithm>
#include <array>

namespace kavrin {

namespace {

constexpr std::array<std::string_view, 7> names = {"debug", "info",  "notice", "warning",
                                                   "error", "fault", "off"};

}  // namespace

std::string_view logLevelName(LogLevel level) {
    return names[static_cast<std::size_t>(level)];
}

std::optional<LogLevel> parseLogLevel(std::string_view name) {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
    for (std::size_t i = 0; i < names.size(); ++i) {
        if (std::ranges::equal(name, names[i], {}, lower)) return static_cast<LogLevel>(i);
    }
    return std::nullopt;
}

}  // namespace kavrin
