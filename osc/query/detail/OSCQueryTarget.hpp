#pragma once

#include <string>
#include <string_view>
#include <variant>

namespace kavrin::detail {

/// What an HTTP request asks of an OSCQuery server: a node by its OSC address, and optionally
/// one attribute of it ("/mixer/gain?VALUE"). Internal to the query layer.
struct OSCQueryTarget {
    std::string path;       ///< decoded; "/" for the root, no slash at the end otherwise
    std::string attribute;  ///< empty for the whole node

    /// Reads a request target (origin form). Percent-escapes are decoded as RFC 3986 says, in
    /// the path and the query alike; a broken escape, or a decoded path that holds "..", a
    /// control byte such as NUL or a byte outside ASCII, gives the reason to refuse it instead.
    static std::variant<OSCQueryTarget, std::string> parse(std::string_view target);
    /// The same check for a path that came decoded (a WebSocket command's).
    static std::string problem(std::string_view path);
};

}  // namespace kavrin::detail
