#pragma once

#include <cstddef>
#include <cstdint>
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
    // Only for a component that is one byte per character (isOneBytePerCharacter). One that
    // holds a "/" (never a component of an address) is matched character-wise.
    bool matchesBytes(std::string_view component) const;

    // Whether `path`, an address without one leading and one trailing "/" that is one byte per
    // character, splits at "/" into as many components as `components` and each matches its
    // own. The byte-wise core of OSCCompiledPattern::matches.
    static bool matchesPath(const std::vector<OSCCompiledComponent>& components,
                            std::string_view path);

    // CharacterView::isOneBytePerCharacter, quicker on short texts.
    static bool isOneBytePerCharacter(std::string_view text);

    // True when the component is one literal or empty: it matches only its own text().
    bool isPlainText() const { return shape_ == Shape::plainText; }
    // True when the component is a lone "*": it matches every component.
    bool isAnything() const { return shape_ == Shape::anything; }
    const std::string& text() const { return text_.text; }
    const std::vector<OSCAddressPattern::Token>& tokens() const { return tokens_; }

  private:
    // How the byte-wise search can be cut short. Every token but "*" has one way of matching,
    // so without a star the tokens simply follow each other (fixed); with one star the part
    // before it is fixed and the part after it only needs a start (oneStar); two or more stars
    // need the backtracking search (search).
    enum class Shape : std::uint8_t { plainText, anything, fixed, oneStar, search };

    // Text compared in place: its first eight bytes are also held as one word.
    struct Text {
        std::string text;
        std::uint64_t head = 0;
        std::uint64_t headMask = 0;

        Text() = default;
        explicit Text(std::string bytes);
        // Whether [at, end) begins with this text; [first, end) is the whole buffer, which
        // may be read before `at`.
        bool startsAt(const char* at, const char* first, const char* end) const;
    };

    // One token for byte-wise matching, where counts are byte counts.
    struct Step {
        using Kind = OSCAddressPattern::Token::Kind;
        Kind kind = Kind::literal;
        Text literal;  // literal
        // singleChar, singleCharWildcard: the verdict for each ASCII byte, never for "/", which
        // ends the component being matched.
        std::uint64_t acceptBits[2] = {0, 0};
        std::vector<Text> alternatives;  // strings: in the token set's order

        // The bytes this step takes at `at`, or -1.
        std::ptrdiff_t take(const char* at, const char* first, const char* end) const;
    };
    class ByteSearch;

    // Matches this component at `begin` in the buffer [first, end), where the component runs
    // to the first "/" or to `end`: that position if it matches, else null.
    const char* matchAt(const char* begin, const char* first, const char* end) const;
    // matchAt for two or more stars, kept apart so that the simple shapes need no stack frame.
    [[gnu::noinline]] const char* searchAt(const char* begin, const char* first,
                                           const char* end) const;
    // Takes `steps` [step, last) one after the other from `at`, each in its one way; the
    // position reached, or null when one of them does not match. No step takes a "/".
    static const char* follow(const Step* step, const Step* last, const char* at, const char* first,
                              const char* end);

    std::vector<OSCAddressPattern::Token> tokens_;
    Shape shape_ = Shape::search;
    Text text_;  // plainText
    std::vector<Step> steps_;
    std::size_t star_ = 0;              // oneStar: the index of the star step
    std::ptrdiff_t suffixLength_ = -1;  // oneStar: the bytes the steps after it take, -1 varies
};

}  // namespace kavrin
