#pragma once

#include <string>
#include <string_view>
#include <variant>

namespace kavrin::detail {

/// A command a client sends an OSCQuery server over the WebSocket, in a text frame:
/// {"COMMAND": "LISTEN", "DATA": "/mixer/gain"}. Internal to the query layer.
struct OSCQueryCommand {
    enum class Kind { listen, ignore };
    Kind kind;
    std::string path;

    /// The command, or why the text is not one (not JSON, an unknown command, a bad path).
    static std::variant<OSCQueryCommand, std::string> parse(std::string_view text);
};

}  // namespace kavrin::detail
