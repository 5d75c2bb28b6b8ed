#include "osc/pattern/OSCAddressPatternToken.hpp"

namespace kavrin {

OSCAddressPatternToken::Literal::Literal(const std::string& literal)
    : literal_(literal), view_(CharacterView::segment(literal_, bounds_)) {}

std::optional<std::size_t> OSCAddressPatternToken::Literal::match(const CharacterView& rest) {
    if (!rest.startsWith(view_)) return std::nullopt;
    return view_.size();
}

std::optional<std::size_t> OSCAddressPatternToken::ZeroOrMoreWildcard::match(
    const CharacterView& rest) {
    const auto length = static_cast<std::size_t>(currentLength_);
    if (rest.size() < length) return std::nullopt;
    return length;
}

void OSCAddressPatternToken::ZeroOrMoreWildcard::advance(std::size_t remaining) {
    ++currentLength_;
    isExhausted_ = currentLength_ > static_cast<std::ptrdiff_t>(remaining);
}

void OSCAddressPatternToken::ZeroOrMoreWildcard::reset() {
    currentLength_ = 0;
    isExhausted_ = false;
}

std::optional<std::size_t> OSCAddressPatternToken::SingleCharWildcard::match(
    const CharacterView& rest) {
    if (rest.empty()) return std::nullopt;
    return 1;
}

OSCAddressPatternToken::SingleChar::SingleChar(
    bool isExclusion, const std::set<OSCAddressPattern::CharacterGroup>& groups)
    : isExclusion_(isExclusion), groups_(groups) {}

std::optional<std::size_t> OSCAddressPatternToken::SingleChar::match(const CharacterView& rest) {
    if (rest.empty()) return std::nullopt;
    const std::string_view first = rest[0];
    bool found = false;
    for (const auto& group : groups_) {
        if (group.accepts(first)) {
            found = true;
            break;
        }
    }
    // "[!]" has no groups, so it takes any one character.
    if (found == isExclusion_) return std::nullopt;
    return 1;
}

OSCAddressPatternToken::Strings::Strings(const std::set<std::string>& strings)
    : strings_(strings) {}

std::optional<std::size_t> OSCAddressPatternToken::Strings::match(const CharacterView& rest) {
    // "{}" matches the empty text here, deliberately.
    if (strings_.empty()) return 0;
    std::vector<std::uint32_t> storage;
    for (const auto& alternative : strings_) {
        const CharacterView view = CharacterView::segment(alternative, storage);
        // Deliberate: the first alternative that is a prefix is the only one ever used.
        if (rest.startsWith(view)) return view.size();
    }
    return std::nullopt;
}

}  // namespace kavrin
