#include "osc/addressing/OSCCompiledPattern.hpp"

#include "osc/addressing/CharacterView.hpp"

namespace kavrin {

namespace {

// The address without one leading and then one trailing "/", as pathComponents strips it.
std::string_view strippedPath(std::string_view address) {
    if (!address.empty() && address.front() == '/') address.remove_prefix(1);
    if (!address.empty() && address.back() == '/') address.remove_suffix(1);
    return address;
}

}  // namespace

OSCCompiledPattern::OSCCompiledPattern(OSCAddressPattern pattern) : pattern_(std::move(pattern)) {
    for (auto& component : OSCAddressPattern::components(pattern_.rawAddress())) {
        components_.emplace_back(std::move(component.tokens));
    }
    if (components_.empty()) return;
    std::string joined;
    for (const auto& component : components_) {
        if (!component.isPlainText()) return;
        if (&component != &components_.front()) joined.push_back('/');
        joined += component.text();
    }
    literalPath_ = std::move(joined);
}

bool OSCCompiledPattern::matches(std::string_view address) const {
    // Same as the uncompiled form: no components, no match.
    if (components_.empty()) return false;
    if (literalPath_) return strippedPath(address) == *literalPath_;
    return CharacterView::isOneBytePerCharacter(address) ? matchesBytes(address)
                                                         : matchesCharacters(address);
}

bool OSCCompiledPattern::matchesBytes(std::string_view address) const {
    const std::string_view path = strippedPath(address);
    if (path.empty()) return false;  // no components, and the pattern has some
    const char* const end = path.data() + path.size();
    const char* begin = path.data();
    for (std::size_t i = 0; i < components_.size(); ++i) {
        const OSCCompiledComponent& component = components_[i];
        const char* slash;
        if (component.isPlainText()) {
            // Plain text is compared in place: it must be followed by "/" or the end.
            const std::string& text = component.text();
            if (static_cast<std::size_t>(end - begin) < text.size() ||
                std::string_view(begin, text.size()) != text) {
                return false;
            }
            slash = begin + text.size();
            if (slash != end && *slash != '/') return false;
        } else {
            slash = begin;
            while (slash != end && *slash != '/') ++slash;
            if (!component.matchesBytes(
                    std::string_view(begin, static_cast<std::size_t>(slash - begin)))) {
                return false;
            }
        }
        // The counts must agree: the last part takes the rest only if no "/" is left.
        if ((i + 1 == components_.size()) != (slash == end)) return false;
        begin = slash + 1;
    }
    return true;
}

bool OSCCompiledPattern::matchesCharacters(std::string_view address) const {
    std::vector<std::uint32_t> storage;
    const auto parts = OSCAddressPattern::pathComponents(CharacterView::segment(address, storage));
    if (parts.size() != components_.size()) return false;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (!OSCAddressPattern::matchComponent(parts[i], components_[i].tokens())) return false;
    }
    return true;
}

}  // namespace kavrin
