#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "osc/pattern/OSCAddressPattern.hpp"
#include "osc/pattern/detail/OSCCompiledComponent.hpp"

namespace kavrin {

// An address pattern parsed once for matching many addresses. Its answers are exactly those of
// OSCAddressPattern::matches (the same quirks included); ASCII addresses are matched byte by
// byte without allocating, others go through the character-wise matcher. Immutable after
// construction: matches() may be called from any number of threads at once.
class OSCCompiledPattern {
  public:
    explicit OSCCompiledPattern(OSCAddressPattern pattern);

    const OSCAddressPattern& pattern() const { return pattern_; }
    bool matches(std::string_view address) const {
        // Inline: for short addresses the call would cost as much as the literal comparison.
        if (literalPath_) return matchesLiteralPath(address);
        return OSCCompiledComponent::matchesAddress(steps_, components_, address);
    }

  private:
    bool matchesLiteralPath(std::string_view address) const;

    OSCAddressPattern pattern_;
    std::vector<OSCCompiledComponent> components_;
    // The components' steps joined for matching ASCII addresses in one pass.
    std::vector<OSCCompiledComponent::Step> steps_;
    // Set when every component is plain text: the components joined by "/". Such a pattern
    // matches exactly the addresses that read the same once one leading and one trailing "/"
    // are dropped (components hold no "/", and the pattern is ASCII, so this holds for
    // non-ASCII addresses too).
    std::optional<std::string> literalPath_;
};

}  // namespace kavrin
