#include "osc/query/detail/OSCQueryResponder.hpp"

#include <array>

namespace kavrin::detail {

namespace {

// The node attributes a query string may name; HOST_INFO is the server's.
constexpr std::array<std::string_view, 9> nodeAttributes = {
    "FULL_PATH", "CONTENTS", "TYPE", "DESCRIPTION", "ACCESS", "VALUE", "RANGE", "TAGS", "CRITICAL"};

}  // namespace

const OSCAddressSpace::Node* OSCQueryResponder::nodeAt(std::string_view path) const {
    const OSCAddressSpace::Node* node = &space_.root();
    std::size_t start = 1;
    while (node && start < path.size()) {
        const auto end = std::min(path.find('/', start), path.size());
        const auto name = path.substr(start, end - start);
        const OSCAddressSpace::Node* next = nullptr;
        for (const auto& child : node->children()) {
            if (child->name() == name) {
                next = child.get();
                break;
            }
        }
        node = next;
        start = end + 1;
    }
    return node;
}

Json OSCQueryResponder::nodeJson(const OSCAddressSpace::Node& node, const std::string& path) const {
    Json json = {{"FULL_PATH", path}};
    const auto state = states_.find(path);
    if (node.nodeType() == OSCAddressSpace::NodeType::method) {
        addAttributes(json, state != states_.end() ? state->second.attributes : OSCQueryAttributes{});
        if (state != states_.end() && !state->second.value.empty()) {
            json["VALUE"] = valuesJson(state->second.value);
        }
    } else if (state != states_.end() && !state->second.attributes.description.empty()) {
        json["DESCRIPTION"] = state->second.attributes.description;
    }
    if (node.nodeType() == OSCAddressSpace::NodeType::container || !node.children().empty()) {
        Json contents = Json::object();
        for (const auto& child : node.children()) {
            contents[child->name()] = nodeJson(*child, (path == "/" ? "/" : path + "/") + child->name());
        }
        json["CONTENTS"] = std::move(contents);
    }
    return json;
}

Json OSCQueryResponder::describe(std::string_view path) const {
    const auto* node = nodeAt(path);
    return node ? nodeJson(*node, std::string(path)) : Json();
}

OSCQueryAnswer OSCQueryResponder::answer(const OSCQueryTarget& target, const Json& hostInfo) const {
    const bool known = target.attribute.empty() || target.attribute == "HOST_INFO" ||
                       std::find(nodeAttributes.begin(), nodeAttributes.end(), target.attribute) !=
                           nodeAttributes.end();
    if (!known) return {400, jsonText(Json{{"ERROR", "no attribute " + target.attribute}})};
    const auto* node = nodeAt(target.path);
    if (!node) return {404, jsonText(Json{{"ERROR", "no node at " + target.path}})};
    if (target.attribute == "HOST_INFO") return {200, jsonText(hostInfo)};
    Json json = nodeJson(*node, target.path);
    if (target.attribute.empty()) return {200, jsonText(json)};
    const auto value = attribute(json, target.attribute);
    if (!value) return {204, {}};
    return {200, jsonText(Json{{target.attribute, *value}})};
}

}  // namespace kavrin::detail
