#pragma once

#include <optional>
#include <string_view>

// Internal to the pattern layer: OSCAddressPattern::matches for the usual case, where what the
// wildcards meet is a byte per character (ASCII without a CR LF pair). It walks both texts,
// reading the pattern's tokens as it meets them, with the answers of the parsed form and its
// backtracking search, quirks included, and without building either or allocating.
namespace kavrin::byteMatcher {

// `pattern` is ASCII. Nothing when a wildcard meets a component that is not a byte per
// character: then the character-wise matcher must answer.
std::optional<bool> matches(std::string_view pattern, std::string_view address);

// One pattern component against one address component, both one byte per character.
bool matchComponent(std::string_view patternComponent, std::string_view component);

}  // namespace kavrin::byteMatcher
