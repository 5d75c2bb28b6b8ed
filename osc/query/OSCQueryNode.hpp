#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "osc/codec/OSCValue.hpp"
#include "osc/codec/OSCValueList.hpp"

namespace kavrin {

/// What may be done with a method's value: the number OSCQuery's ACCESS gives it.
enum class OSCQueryAccess : int { none = 0, readOnly = 1, writeOnly = 2, readWrite = 3 };

/// The range of one value: bounds, or the values it may take (RANGE's MIN, MAX and VALS).
struct OSCQueryRange {
    std::optional<OSCValue> min;
    std::optional<OSCValue> max;
    std::vector<OSCValue> values;
    friend bool operator==(const OSCQueryRange&, const OSCQueryRange&) = default;
};

/// What OSCQuery tells of a method besides its place and its value. A plain value.
struct OSCQueryAttributes {
    /// The type tags taken and reported, without the comma ("f", "ifs", "[ff]"); none for a
    /// method that takes anything or nothing.
    std::optional<std::string> type;
    std::string description;  ///< left out when empty
    OSCQueryAccess access = OSCQueryAccess::none;
    std::vector<OSCQueryRange> range;  ///< one per value, or none
    std::vector<std::string> tags;
    /// Whether it should be sent over a reliable transport; left out when unset.
    std::optional<bool> critical;
    friend bool operator==(const OSCQueryAttributes&, const OSCQueryAttributes&) = default;
};

/// A node of a described address space, as an OSCQueryClient reads it. A plain value.
struct OSCQueryNode {
    std::string fullPath;  ///< "/" for the root
    OSCQueryAttributes attributes;
    OSCValueList value;                   ///< VALUE, read by the type tags; empty when none
    std::vector<OSCQueryNode> contents;   ///< the children, by name
    bool hasContents = false;             ///< CONTENTS was there, even empty

    /// A leaf, or a node that says what it takes or gives.
    bool isMethod() const {
        return !hasContents || attributes.type || attributes.access != OSCQueryAccess::none;
    }
    /// The node at `path` below or at this one, nullptr when there is none.
    const OSCQueryNode* find(std::string_view path) const;
    /// Every method at or below this node, depth first, children by name.
    std::vector<const OSCQueryNode*> methods() const;
    friend bool operator==(const OSCQueryNode&, const OSCQueryNode&) = default;
};

/// How OSC reaches the described program (OSC_TRANSPORT).
enum class OSCQueryTransport { udp, tcp };

/// A server's HOST_INFO. A plain value.
struct OSCQueryHostInfo {
    std::string name;
    std::string oscAddress;  ///< OSC_IP; empty: the host the HTTP server was reached at
    std::uint16_t oscPort = 0;
    OSCQueryTransport oscTransport = OSCQueryTransport::udp;
    /// The optional attributes and features the server has, by their names ("VALUE", "LISTEN").
    std::map<std::string, bool> extensions;
    friend bool operator==(const OSCQueryHostInfo&, const OSCQueryHostInfo&) = default;
};

}  // namespace kavrin
