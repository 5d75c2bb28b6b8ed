#pragma once

#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "osc/addressing/OSCAddressSpace.hpp"
#include "osc/query/detail/OSCQueryJson.hpp"
#include "osc/query/detail/OSCQueryTarget.hpp"

namespace kavrin::detail {

/// What an OSCQuery server knows of a method beyond the address space: its attributes and
/// its current value.
struct OSCQueryMethodState {
    OSCQueryAttributes attributes;
    OSCValueList value;
    /// The method's node as JSON text, built when first asked for and cleared whenever the
    /// attributes or the value change: a tree is mostly methods, changing one at a time.
    mutable std::string text;
};
using OSCQueryMethodStates = std::unordered_map<std::string, OSCQueryMethodState>;

/// An HTTP status and a JSON body (empty for 204).
struct OSCQueryAnswer {
    unsigned status = 200;
    std::string body;
};

/// Answers GET requests from an address space and the states of its methods. Internal to the
/// query layer. Call it where the space may be read, with the states held still.
class OSCQueryResponder {
  public:
    OSCQueryResponder(const OSCAddressSpace& space, const OSCQueryMethodStates& states)
        : space_(space), states_(states) {}

    /// The node, the attribute, HOST_INFO (from `hostInfo`), 204 for an attribute the node
    /// lacks, 404 for an unknown path, 400 for an unknown attribute.
    OSCQueryAnswer answer(const OSCQueryTarget& target, const Json& hostInfo) const;
    /// The node at `path` as OSCQuery describes it, with everything below it; null when there is
    /// no node there.
    Json describe(std::string_view path) const;

  private:
    const OSCAddressSpace::Node* nodeAt(std::string_view path) const;
    /// The node without its CONTENTS.
    Json ownJson(const OSCAddressSpace::Node& node, const std::string& path) const;
    Json nodeJson(const OSCAddressSpace::Node& node, const std::string& path) const;
    /// The text of nodeJson(), made of the methods' kept texts.
    void appendText(std::string& out, const OSCAddressSpace::Node& node, const std::string& path) const;
    void appendContents(std::string& out, const OSCAddressSpace::Node& node, const std::string& path) const;

    const OSCAddressSpace& space_;
    const OSCQueryMethodStates& states_;
};

}  // namespace kavrin::detail
