#pragma once

#include <nlohmann/json.hpp>

#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "osc/query/OSCQueryNode.hpp"

namespace kavrin::detail {

/// OSCQuery's JSON and our values, both ways. Internal to the query layer; nlohmann-json stays
/// out of the public headers.
using Json = nlohmann::json;

/// Compact JSON text; bytes that are not UTF-8 (in a string value, say) are replaced rather
/// than thrown at.
std::string jsonText(const Json& json);

/// JSON that is not what OSCQuery describes; what() says where.
struct OSCQueryFormatError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The groups of a type tag string: one tag each, or a bracketed array ("i[ff]s": i, [ff], s).
/// nullopt when a tag is unknown, a bracket unbalanced or arrays nest deeper than the codec's
/// limit.
std::optional<std::vector<std::string_view>> tagGroups(std::string_view tags);

/// A value as VALUE and RANGE hold it: numbers, strings, booleans, arrays; null for what JSON
/// cannot carry (blobs, impulses, nils).
Json valueJson(const OSCValue& value);
Json valuesJson(std::span<const OSCValue> values);
/// One value of the group's tag (or array) from JSON; nullopt when it does not fit.
std::optional<OSCValue> valueFromJson(const Json& json, std::string_view group);
/// The values of a VALUE array by the type tags; nullopt when they do not fit.
std::optional<OSCValueList> valuesFromJson(const Json& json, std::string_view tags);

/// Adds the attributes that are set to a node object.
void addAttributes(Json& node, const OSCQueryAttributes& attributes);
/// The attribute `name` of a node object built by addAttributes, if it has it.
std::optional<Json> attribute(const Json& node, std::string_view name);

Json hostInfoJson(const OSCQueryHostInfo& info);
/// Throws OSCQueryFormatError.
OSCQueryHostInfo hostInfoFromJson(const Json& json);
/// Throws OSCQueryFormatError, also for a tree more than maximumDepth levels deep.
OSCQueryNode nodeFromJson(const Json& json);
inline constexpr int maximumDepth = 64;

}  // namespace kavrin::detail
