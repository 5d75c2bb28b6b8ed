#include "osc/pattern/OSCCompiledPattern.hpp"

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
    steps_ = OSCCompiledComponent::pathSteps(components_);
    std::string joined;
    for (const auto& component : components_) {
        if (!component.isPlainText()) return;
        if (&component != &components_.front()) joined.push_back('/');
        joined += component.text();
    }
    literalPath_ = std::move(joined);
}

bool OSCCompiledPattern::matchesLiteralPath(std::string_view address) const {
    return strippedPath(address) == *literalPath_;
}

}  // namespace kavrin
