#include "osc/query/detail/OSCQueryJson.hpp"

#include <array>
#include <cstdint>
#include <limits>
#include <string>

#include "osc/codec/OSCSerialization.hpp"
#include "osc/codec/OSCTypeTag.hpp"

namespace kavrin::detail {

namespace {

std::string utf8(char32_t c) {
    std::string text;
    if (c < 0x80) {
        text += static_cast<char>(c);
    } else if (c < 0x800) {
        text += static_cast<char>(0xC0 | (c >> 6));
        text += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        text += static_cast<char>(0xE0 | (c >> 12));
        text += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        text += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        text += static_cast<char>(0xF0 | (c >> 18));
        text += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        text += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        text += static_cast<char>(0x80 | (c & 0x3F));
    }
    return text;
}

// The one character of a text, nullopt when it holds more or none (UTF-8 checked by the parser).
std::optional<char32_t> onlyCharacter(const std::string& text) {
    if (text.empty()) return std::nullopt;
    const auto lead = static_cast<unsigned char>(text[0]);
    const std::size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    if (text.size() != length) return std::nullopt;
    char32_t c = length == 1 ? lead : lead & (0x7F >> length);
    for (std::size_t i = 1; i < length; ++i) c = c << 6 | (static_cast<unsigned char>(text[i]) & 0x3F);
    return c;
}

template <class Integer>
std::optional<OSCValue> integer(const Json& json) {
    if (json.is_number_integer()) {
        if (json.is_number_unsigned()) {
            const auto value = json.get<std::uint64_t>();
            if (value > static_cast<std::uint64_t>(std::numeric_limits<Integer>::max())) return std::nullopt;
            return OSCValue(static_cast<Integer>(value));
        }
        const auto value = json.get<std::int64_t>();
        if (value < std::numeric_limits<Integer>::min() || value > std::numeric_limits<Integer>::max()) {
            return std::nullopt;
        }
        return OSCValue(static_cast<Integer>(value));
    }
    return std::nullopt;
}

}  // namespace

std::string jsonText(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::optional<std::vector<std::string_view>> tagGroups(std::string_view tags) {
    std::vector<std::string_view> groups;
    for (std::size_t i = 0; i < tags.size();) {
        if (tags[i] == oscArrayEnd) return std::nullopt;
        if (tags[i] != oscArrayStart) {
            if (!oscTypeTag::find(tags[i])) return std::nullopt;
            groups.push_back(tags.substr(i++, 1));
            continue;
        }
        std::size_t depth = 0, end = i;
        for (; end < tags.size(); ++end) {
            if (tags[end] == oscArrayStart && ++depth > OSCSerialization::maximumArrayDepth) return std::nullopt;
            if (tags[end] == oscArrayEnd && --depth == 0) break;
            if (tags[end] != oscArrayStart && tags[end] != oscArrayEnd && !oscTypeTag::find(tags[end])) {
                return std::nullopt;
            }
        }
        if (end == tags.size()) return std::nullopt;
        groups.push_back(tags.substr(i, end + 1 - i));
        i = end + 1;
    }
    return groups;
}

Json valueJson(const OSCValue& value) {
    return std::visit(
        [](const auto& v) -> Json {
            using T = std::decay_t<decltype(v)>;
            if constexpr (std::is_same_v<T, float> || std::is_same_v<T, double> ||
                          std::is_same_v<T, std::int32_t> || std::is_same_v<T, std::int64_t> ||
                          std::is_same_v<T, bool>) {
                return v;
            } else if constexpr (std::is_same_v<T, OSCString>) {
                return std::string(v.view());
            } else if constexpr (std::is_same_v<T, OSCStringAltValue>) {
                return std::string(v.string.view());
            } else if constexpr (std::is_same_v<T, char32_t>) {
                return utf8(v);
            } else if constexpr (std::is_same_v<T, OSCMIDIValue>) {
                return Json::array({v.portID, v.status, v.data1, v.data2});
            } else if constexpr (std::is_same_v<T, OSCTimeTag>) {
                return v.rawValue;
            } else if constexpr (std::is_same_v<T, OSCArrayValue>) {
                return valuesJson(v.elements);
            } else {
                return nullptr;  // blobs, impulses and nils have no JSON form
            }
        },
        value.base());
}

Json valuesJson(std::span<const OSCValue> values) {
    Json array = Json::array();
    for (const auto& value : values) array.push_back(valueJson(value));
    return array;
}

std::optional<OSCValue> valueFromJson(const Json& json, std::string_view group) {
    if (group.size() > 1) {
        if (!json.is_array()) return std::nullopt;
        auto elements = valuesFromJson(json, group.substr(1, group.size() - 2));
        if (!elements) return std::nullopt;
        return OSCValue(OSCArrayValue{{std::make_move_iterator(elements->begin()), std::make_move_iterator(elements->end())}});
    }
    switch (group.empty() ? '\0' : group[0]) {
        case 'i':
            return integer<std::int32_t>(json);
        case 'h':
            return integer<std::int64_t>(json);
        case 'f':
            if (!json.is_number()) return std::nullopt;
            return OSCValue(json.get<float>());
        case 'd':
            if (!json.is_number()) return std::nullopt;
            return OSCValue(json.get<double>());
        case 's':
            if (!json.is_string()) return std::nullopt;
            return OSCValue(json.get<std::string>());
        case 'S':
            if (!json.is_string()) return std::nullopt;
            return OSCValue(OSCStringAltValue{json.get<std::string>()});
        case 'T':
        case 'F':
            if (!json.is_boolean()) return std::nullopt;
            return OSCValue(json.get<bool>());
        case 'c': {
            if (!json.is_string()) return std::nullopt;
            const auto c = onlyCharacter(json.get<std::string>());
            if (!c) return std::nullopt;
            return OSCValue(*c);
        }
        case 'm': {
            if (!json.is_array() || json.size() != 4) return std::nullopt;
            std::array<std::uint8_t, 4> bytes{};
            for (std::size_t i = 0; i < 4; ++i) {
                if (!json[i].is_number_unsigned() || json[i].get<std::uint64_t>() > 255) return std::nullopt;
                bytes[i] = json[i].get<std::uint8_t>();
            }
            return OSCValue(OSCMIDIValue{bytes[0], bytes[1], bytes[2], bytes[3]});
        }
        case 't':
            if (!json.is_number_unsigned()) return std::nullopt;
            return OSCValue(OSCTimeTag{0, json.get<std::uint64_t>()});
        case 'I':
            return OSCValue(OSCImpulseValue{});
        case 'N':
            return OSCValue(OSCNullValue{});
        case 'b':
            return OSCValue(OSCBlob{});
        default:
            return std::nullopt;
    }
}

std::optional<OSCValueList> valuesFromJson(const Json& json, std::string_view tags) {
    const auto groups = tagGroups(tags);
    if (!groups || !json.is_array() || json.size() != groups->size()) return std::nullopt;
    OSCValueList values;
    for (std::size_t i = 0; i < groups->size(); ++i) {
        auto value = valueFromJson(json[i], (*groups)[i]);
        if (!value) return std::nullopt;
        values.push_back(std::move(*value));
    }
    return values;
}

void addAttributes(Json& node, const OSCQueryAttributes& attributes) {
    if (attributes.type) node["TYPE"] = *attributes.type;
    if (!attributes.description.empty()) node["DESCRIPTION"] = attributes.description;
    node["ACCESS"] = static_cast<int>(attributes.access);
    if (!attributes.range.empty()) {
        Json ranges = Json::array();
        for (const auto& range : attributes.range) {
            Json entry = Json::object();
            if (range.min) entry["MIN"] = valueJson(*range.min);
            if (range.max) entry["MAX"] = valueJson(*range.max);
            if (!range.values.empty()) entry["VALS"] = valuesJson(range.values);
            ranges.push_back(std::move(entry));
        }
        node["RANGE"] = std::move(ranges);
    }
    if (!attributes.tags.empty()) node["TAGS"] = attributes.tags;
    if (attributes.critical) node["CRITICAL"] = *attributes.critical;
}

std::optional<Json> attribute(const Json& node, std::string_view name) {
    const auto found = node.find(name);
    if (found == node.end()) return std::nullopt;
    return *found;
}

Json hostInfoJson(const OSCQueryHostInfo& info) {
    Json json = {{"NAME", info.name},
                 {"OSC_PORT", info.oscPort},
                 {"OSC_TRANSPORT", info.oscTransport == OSCQueryTransport::tcp ? "TCP" : "UDP"},
                 {"EXTENSIONS", info.extensions}};
    if (!info.oscAddress.empty()) json["OSC_IP"] = info.oscAddress;
    return json;
}

namespace {

[[noreturn]] void formatError(const std::string& where, const std::string& what) {
    throw OSCQueryFormatError(where + ": " + what);
}

template <class T>
std::optional<T> optionalField(const Json& json, const char* name, const std::string& where) {
    const auto found = json.find(name);
    if (found == json.end() || found->is_null()) return std::nullopt;
    try {
        return found->get<T>();
    } catch (const Json::exception&) {
        formatError(where, std::string(name) + " is of the wrong kind");
    }
}

OSCQueryNode node(const Json& json, const std::string& path, int depth) {
    if (depth > maximumDepth) formatError(path, "deeper than " + std::to_string(maximumDepth) + " levels");
    if (!json.is_object()) formatError(path, "a node is not an object");
    OSCQueryNode node;
    node.fullPath = optionalField<std::string>(json, "FULL_PATH", path).value_or(path);
    auto& attributes = node.attributes;
    attributes.type = optionalField<std::string>(json, "TYPE", node.fullPath);
    attributes.description = optionalField<std::string>(json, "DESCRIPTION", node.fullPath).value_or("");
    const int access = optionalField<int>(json, "ACCESS", node.fullPath).value_or(0);
    if (access < 0 || access > 3) formatError(node.fullPath, "ACCESS is not 0 to 3");
    attributes.access = static_cast<OSCQueryAccess>(access);
    attributes.tags = optionalField<std::vector<std::string>>(json, "TAGS", node.fullPath).value_or(
        std::vector<std::string>{});
    attributes.critical = optionalField<bool>(json, "CRITICAL", node.fullPath);
    const std::string type = attributes.type.value_or("");
    const auto groups = tagGroups(type);  // views into `type`
    if (const auto value = json.find("VALUE"); value != json.end() && attributes.type) {
        // A value that does not fit its type is left out rather than guessed at.
        node.value = valuesFromJson(*value, *attributes.type).value_or(OSCValueList{});
    }
    if (const auto ranges = json.find("RANGE"); ranges != json.end() && ranges->is_array()) {
        for (std::size_t i = 0; i < ranges->size(); ++i) {
            const auto& entry = (*ranges)[i];
            const std::string_view group = groups && i < groups->size() ? (*groups)[i] : "d";
            OSCQueryRange range;
            if (entry.is_object()) {
                if (entry.contains("MIN")) range.min = valueFromJson(entry["MIN"], group);
                if (entry.contains("MAX")) range.max = valueFromJson(entry["MAX"], group);
                if (const auto vals = entry.find("VALS"); vals != entry.end() && vals->is_array()) {
                    for (const auto& val : *vals) {
                        if (auto value = valueFromJson(val, group)) range.values.push_back(std::move(*value));
                    }
                }
            }
            attributes.range.push_back(std::move(range));
        }
    }
    if (const auto contents = json.find("CONTENTS"); contents != json.end()) {
        if (!contents->is_object()) formatError(node.fullPath, "CONTENTS is not an object");
        node.hasContents = true;
        for (const auto& [name, child] : contents->items()) {
            node.contents.push_back(
                kavrin::detail::node(child, (node.fullPath == "/" ? "/" : node.fullPath + "/") + name, depth + 1));
        }
    }
    return node;
}

}  // namespace

OSCQueryHostInfo hostInfoFromJson(const Json& json) {
    if (!json.is_object()) formatError("HOST_INFO", "not an object");
    OSCQueryHostInfo info;
    info.name = optionalField<std::string>(json, "NAME", "HOST_INFO").value_or("");
    info.oscAddress = optionalField<std::string>(json, "OSC_IP", "HOST_INFO").value_or("");
    const auto port = optionalField<int>(json, "OSC_PORT", "HOST_INFO");
    if (!port || *port < 0 || *port > 65535) formatError("HOST_INFO", "no OSC_PORT");
    info.oscPort = static_cast<std::uint16_t>(*port);
    const auto transport = optionalField<std::string>(json, "OSC_TRANSPORT", "HOST_INFO").value_or("UDP");
    if (transport != "UDP" && transport != "TCP") formatError("HOST_INFO", "OSC_TRANSPORT is " + transport);
    info.oscTransport = transport == "TCP" ? OSCQueryTransport::tcp : OSCQueryTransport::udp;
    if (const auto extensions = json.find("EXTENSIONS"); extensions != json.end() && extensions->is_object()) {
        for (const auto& [name, on] : extensions->items()) {
            if (on.is_boolean()) info.extensions[name] = on.get<bool>();
        }
    }
    return info;
}

OSCQueryNode nodeFromJson(const Json& json) { return node(json, "/", 0); }

}  // namespace kavrin::detail
