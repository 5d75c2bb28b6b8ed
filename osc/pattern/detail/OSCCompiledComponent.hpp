#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "osc/pattern/OSCAddressPattern.hpp"

namespace kavrin {

// Internal to the pattern layer, behind OSCCompiledPattern.
// One pattern component prepared for matching many address components. Its answers are
// exactly those of OSCAddressPattern::matchComponent (the same quirks included): components in
// which every byte is a character are matched byte by byte without allocating, others go
// through the character-wise matcher. Immutable after construction: use from any thread.
class OSCCompiledComponent {
  public:
    explicit OSCCompiledComponent(std::vector<OSCAddressPattern::Token> tokens);

    // Any UTF-8 component.
    bool matches(std::string_view component) const;
    // Only for a component that is one byte per character (CharacterView::
    // isOneBytePerCharacter). One that holds a "/" (never a component of an address) is matched
    // character-wise.
    bool matchesBytes(std::string_view component) const;

    // True when the component is one literal or empty: it matches only its own text().
    bool isPlainText() const { return shape_ == Shape::plainText; }
    // True when the component is a lone "*": it matches every component.
    bool isAnything() const { return shape_ == Shape::anything; }
    const std::string& text() const { return text_; }
    const std::vector<OSCAddressPattern::Token>& tokens() const { return tokens_; }

  private:
    friend class OSCCompiledPattern;

    // How a component is matched in place. Every token but "*" has one way of matching, so
    // without a star, or with one star that ends the component, the steps simply follow each
    // other (linear: plain text and a lone star are the simplest of these); with one star
    // elsewhere the part before it is linear and the part after it only needs a start
    // (oneStar); two or more stars need the position search (search).
    enum class Shape : std::uint8_t { plainText, anything, linear, oneStar, search };

    // Text compared in place, never empty: its first eight bytes are also held as one word.
    struct Text {
        std::uint64_t head = 0;
        std::uint64_t headMask = 0;
        std::string text;

        Text() = default;
        explicit Text(std::string bytes);
        // Whether [at, end) begins with this text; [first, end) is the whole buffer, which
        // may be read before `at`.
        bool startsAt(const char* at, const char* first, const char* end) const;
    };

    // One byte-wise matching step. A component's steps follow its tokens; a whole pattern's
    // steps (OSCCompiledPattern) join its components' steps with "/" and merge adjacent text.
    // No step but a separator takes a "/", which ends the component being matched.
    struct Step {
        enum class Kind : std::uint8_t {
            text,     // literal text
            oneOf,    // "?" or "[...]": one byte that acceptBits accepts
            strings,  // "{...}": the first alternative that is a prefix, "{}" none
            star,     // "*"; in a linear run, one that ends its component: up to the next "/"
            starThenSeparator,  // such a star, then the "/" after it (a pattern's steps only)
            separator,          // "/" between components (a pattern's steps only)
            component,          // a component that is not linear (a pattern's steps only)
        };
        Kind kind = Kind::text;
        Text text;                             // text, separator
        std::uint64_t acceptBits[2] = {0, 0};  // oneOf: the verdict for each ASCII byte
        std::vector<Text> alternatives;        // strings: in the token set's order
        std::size_t component = 0;             // component: its index in the pattern

        // The bytes a text, oneOf or strings step takes at `at`, or -1.
        std::ptrdiff_t take(const char* at, const char* first, const char* end) const;
        bool acceptsAt(const char* at, const char* end) const;  // oneOf
        std::ptrdiff_t takeString(const char* at, const char* first,
                                  const char* end) const;  // strings
    };
    class SearchSteps;

    // Runs linear `steps` [step, last) from `at` in the buffer [first, end), taking component
    // steps from `components`: where they end, or null when one does not match.
    static const char* follow(const Step* step, const Step* last, const char* at, const char* first,
                              const char* end, const OSCCompiledComponent* components);
    // The steps of a whole pattern of `components`.
    static std::vector<Step> pathSteps(const std::vector<OSCCompiledComponent>& components);
    // Whether `address` matches the pattern whose components and pathSteps are given, exactly
    // as OSCAddressPattern::matches answers. The core of OSCCompiledPattern::matches.
    static bool matchesAddress(const std::vector<Step>& steps,
                               const std::vector<OSCCompiledComponent>& components,
                               std::string_view address);
    // The character-wise answer, for addresses that are not one byte per character.
    static bool matchesCharacters(const std::vector<OSCCompiledComponent>& components,
                                  std::string_view address);
    // Matches a component that is not linear at `begin` in the buffer [first, end), the
    // component running to the first "/" or to `end`: that position if it matches, else null.
    // Kept out of line so that linear steps need no stack frame.
    [[gnu::noinline]] const char* searchAt(const char* begin, const char* first,
                                           const char* end) const;

    std::vector<OSCAddressPattern::Token> tokens_;
    Shape shape_ = Shape::search;
    std::string text_;  // plainText
    std::vector<Step> steps_;
    std::size_t star_ = 0;              // oneStar: the index of the star step
    std::ptrdiff_t suffixLength_ = -1;  // oneStar: the bytes the steps after it take, -1 varies
};

}  // namespace kavrin
