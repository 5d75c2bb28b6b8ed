#pragma once

#include <bitset>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "osc/addressing/OSCAddressPattern.hpp"

namespace kavrin {

// One pattern component prepared for matching many address components. Its answers are
// exactly those of OSCAddressPattern::matchComponent (the same quirks included): components in
// which every byte is a character are matched byte by byte without allocating, others go
// through the character-wise matcher. Immutable after construction: use from any thread.
class OSCCompiledComponent {
  public:
    explicit OSCCompiledComponent(std::vector<OSCAddressPattern::Token> tokens);

    // Any UTF-8 component.
    bool matches(std::string_view component) const;
    // Only for a component that is one byte per character (CharacterView::isOneBytePerCharacter).
    bool matchesBytes(std::string_view component) const;

    // True when the component is one literal or empty: it matches only its own text().
    bool isPlainText() const { return shape_ == Shape::plainText; }
    const std::string& text() const { return text_; }
    const std::vector<OSCAddressPattern::Token>& tokens() const { return tokens_; }

  private:
    enum class Shape { plainText, anything, search };
    // One token for byte-wise matching, where counts are byte counts.
    struct Step {
        using Kind = OSCAddressPattern::Token::Kind;
        Kind kind;
        std::string literal;
        std::bitset<128> accepts;               // singleChar: the verdict for each ASCII byte
        std::vector<std::string> alternatives;  // strings: in the token set's order
    };
    class ByteSearch;

    std::vector<OSCAddressPattern::Token> tokens_;
    Shape shape_ = Shape::search;
    std::string text_;
    std::vector<Step> steps_;
    bool remembersFailures_ = false;  // two or more stars can revisit a (step, position)
};

}  // namespace kavrin
