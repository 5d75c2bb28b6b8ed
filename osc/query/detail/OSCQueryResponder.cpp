#include "osc/query/detail/OSCQueryResponder.hpp"

#include <algorithm>
#include <array>
#include <utility>

namespace kavrin::detail {

namespace {

// The node attributes a query string may name; HOST_INFO is the server's.
constexpr std::array<std::string_view, 9> nodeAttributes = {
    "FULL_PATH", "CONTENTS", "TYPE", "DESCRIPTION", "ACCESS", "VALUE", "RANGE", "TAGS", "CRITICAL"};

std::string childPath(const std::string& path, const std::string& name) {
    return (path == "/" ? "/" : path + "/") + name;
}

// Names and paths are mostly plain ASCII, which JSON writes as it is; anything else is left to
// the JSON library.
void appendString(std::string& out, std::string_view text) {
    const bool plain = std::all_of(text.begin(), text.end(), [](char c) {
        return c >= 0x20 && c < 0x7F && c != '"' && c != '\\';
    });
    if (!plain) {
        out += jsonText(std::string(text));
        return;
    }
    out += '"';
    out += text;
    out += '"';
}

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

Json OSCQueryResponder::ownJson(const OSCAddressSpace::Node& node, const std::string& path) const {
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
    return json;
}

Json OSCQueryResponder::nodeJson(const OSCAddressSpace::Node& node, const std::string& path) const {
    Json json = ownJson(node, path);
    if (node.nodeType() == OSCAddressSpace::NodeType::container || !node.children().empty()) {
        Json contents = Json::object();
        for (const auto& child : node.children()) {
            contents[child->name()] = nodeJson(*child, childPath(path, child->name()));
        }
        json["CONTENTS"] = std::move(contents);
    }
    return json;
}

// Every node's text is made of these pieces, in the JSON library's order: members sorted by
// key, CONTENTS among them, and children sorted by name.
void OSCQueryResponder::appendText(std::string& out, const OSCAddressSpace::Node& node,
                                   const std::string& path) const {
    const bool method = node.nodeType() == OSCAddressSpace::NodeType::method;
    const auto state = states_.find(path);
    if (method && node.children().empty()) {
        if (state == states_.end()) {
            out += jsonText(ownJson(node, path));
        } else {
            if (state->second.text.empty()) state->second.text = jsonText(ownJson(node, path));
            out += state->second.text;
        }
        return;
    }
    if (!method && state == states_.end()) {  // a container with nothing but its path
        out += '{';
        appendContents(out, node, path);
        out += R"(,"FULL_PATH":)";
        appendString(out, path);
        out += '}';
        return;
    }
    char separator = '{';
    bool contentsDone = false;
    const Json own = ownJson(node, path);
    for (const auto& [key, value] : own.items()) {
        if (!contentsDone && key > "CONTENTS") {
            out += std::exchange(separator, ',');
            appendContents(out, node, path);
            contentsDone = true;
        }
        out += std::exchange(separator, ',');
        appendString(out, key);
        out += ':';
        out += jsonText(value);
    }
    if (!contentsDone) {
        out += separator;
        appendContents(out, node, path);
    }
    out += '}';
}

void OSCQueryResponder::appendContents(std::string& out, const OSCAddressSpace::Node& node,
                                       const std::string& path) const {
    std::vector<const OSCAddressSpace::Node*> children;
    children.reserve(node.children().size());
    for (const auto& child : node.children()) children.push_back(child.get());
    std::sort(children.begin(), children.end(), [](const auto* a, const auto* b) { return a->name() < b->name(); });
    out += R"("CONTENTS":{)";
    std::string childAt = path == "/" ? "/" : path + "/";
    const auto base = childAt.size();
    for (const auto* child : children) {
        if (child != children.front()) out += ',';
        appendString(out, child->name());
        out += ':';
        childAt.resize(base);
        childAt += child->name();
        appendText(out, *child, childAt);
    }
    out += '}';
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
    if (target.attribute.empty()) {
        std::string text;
        appendText(text, *node, target.path);
        return {200, std::move(text)};
    }
    Json json = nodeJson(*node, target.path);
    const auto value = attribute(json, target.attribute);
    if (!value) return {204, {}};
    return {200, jsonText(Json{{target.attribute, *value}})};
}

}  // namespace kavrin::detail
