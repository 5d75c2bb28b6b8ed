#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string_view>

#include "osc/pattern/OSCAddressPattern.hpp"

namespace kavrin {

// An address pattern read once for matching many addresses, with exactly the answers of
// OSCAddressPattern::matches (the same quirks included). Addresses that are a byte per
// character are matched without allocating; others character by character. Immutable after
// construction: any number of threads may use one at once, and copies share what was read.
class OSCCompiledPattern {
  public:
    explicit OSCCompiledPattern(OSCAddressPattern pattern);

    const OSCAddressPattern& pattern() const { return pattern_; }
    bool matches(std::string_view address) const;

    // The pattern's components one by one, for walking a tree of names level by level; each
    // `index` below is less than componentCount().
    std::size_t componentCount() const;
    // Whether `name`, one component of an address, matches component `index`: the answer of
    // OSCAddressPattern::matchComponent for that component's tokens.
    bool matchesComponent(std::size_t index, std::string_view name) const;
    // The text of component `index` when it holds no wildcard: it matches only that name.
    std::optional<std::string_view> literalComponent(std::size_t index) const;
    // Whether component `index` is a lone "*", which matches every name.
    bool matchesEveryName(std::size_t index) const;

  private:
    struct Program;

    OSCAddressPattern pattern_;
    std::shared_ptr<const Program> program_;
};

}  // namespace kavrin
