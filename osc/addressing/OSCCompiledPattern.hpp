#pragma once

#include <bitset>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "osc/addressing/OSCAddressPattern.hpp"

namespace kavrin {

// An address pattern parsed once for matching many addresses. Its answers are exactly those of
// OSCAddressPattern::matches (the same quirks included); ASCII addresses are matched byte by
// byte without allocating, others go through the character-wise matcher. Immutable after
// construction: matches() may be called from any number of threads at once.
class OSCCompiledPattern {
  public:
    explicit OSCCompiledPattern(OSCAddressPattern pattern);

    const OSCAddressPattern& pattern() const { return pattern_; }
    bool matches(std::string_view address) const;

  private:
    // One token for byte-wise matching. Every byte of the address is a character there, so
    // counts are byte counts.
    struct Step {
        enum class Kind { literal, zeroOrMoreWildcard, singleCharWildcard, singleChar, strings };
        Kind kind;
        std::string literal;
        std::bitset<128> accepts;               // singleChar: the verdict for each ASCII byte
        std::vector<std::string> alternatives;  // strings: in the token set's order
    };
    struct Part {
        enum class Shape { empty, literal, anything, search };
        Shape shape;
        std::string literal;
        std::vector<Step> steps;
        bool remembersFailures;  // two or more stars can revisit a (step, position)
    };
    class ByteSearch;

    bool matchesBytes(std::string_view address) const;
    bool matchesCharacters(std::string_view address) const;
    static bool matchPart(const Part& part, std::string_view component);

    OSCAddressPattern pattern_;
    std::vector<OSCAddressPattern::Component> components_;
    std::vector<Part> parts_;
    // Set when every component is plain text: the components joined by "/". Such a pattern
    // matches exactly the addresses that read the same once one leading and one trailing "/"
    // are dropped (components hold no "/", and the pattern is ASCII, so this holds for
    // non-ASCII addresses too).
    std::optional<std::string> literalPath_;
};

}  // namespace kavrin
