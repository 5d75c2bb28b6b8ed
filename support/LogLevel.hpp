#pragma once

#include <optional>
#include <string_view>

namespace kavrin {

// How much a log message matters, least first. `off` is a threshold only, above every message
// level: a category set to it writes nothing, and a message logged at it is never written.
enum class LogLevel { debug, info, notice, warning, error, fault, off };

// "debug", "info", ..., "off".
std::string_view logLevelName(LogLevel level);
// The level named `name` in any letter case, if any.
std::optional<LogLevel> parseLogLevel(std::string_view name);

}  // namespace kavrin
