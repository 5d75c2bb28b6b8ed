#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "osc/pattern/CharacterView.hpp"
#include "support/CompactBytes.hpp"

namespace kavrin {

// An OSC address pattern such as "/ch/[1-8]/*": the text as ASCII and its bytes. Parsing into
// components and tokens happens on demand and never fails: malformed wildcard syntax is read
// as literal text. A "character" here is one user-perceived character (extended grapheme
// cluster) held as its UTF-8 bytes; in ASCII text that is one byte, except that CR LF is one.
// An address of up to 48 bytes is kept inside the object: making one from ASCII text, or
// decoding one, allocates nothing.
// A plain value: distinct objects may be used from any thread, a shared one for reading only.
class OSCAddressPattern {
  public:
    using Character = std::string;

    // One member of a bracket expression: a single character, or a range judged by ASCII code
    // at match time (stored as written, reversed or not).
    struct CharacterGroup {
        enum class Kind : std::uint8_t { single, asciiRange };  // values are the hash discriminator

        Kind kind = Kind::single;
        Character start;  // the character of a single, the low end of a range
        Character end;    // the high end of a range; empty for a single

        static CharacterGroup single(Character character);
        static CharacterGroup asciiRange(Character start, Character end);

        // Whether this group takes `character`. A range takes only ASCII characters, needs ASCII
        // bounds and accepts nothing when reversed.
        bool accepts(std::string_view character) const;

        friend bool operator==(const CharacterGroup&, const CharacterGroup&) = default;
        friend auto operator<=>(const CharacterGroup&, const CharacterGroup&) = default;
    };

    // One token of a component. Only the fields of its kind are set; the others stay empty.
    struct Token {
        enum class Kind : std::uint8_t {  // values are the hash discriminator
            literal,
            zeroOrMoreWildcard,
            singleCharWildcard,
            singleChar,
            strings,
        };

        Kind kind = Kind::literal;
        std::string text;                 // literal
        bool isExclusion = false;         // singleChar: "[!...]"
        std::set<CharacterGroup> groups;  // singleChar
        // strings: the alternatives of "{...}". The set iterates in lexicographic byte order,
        // and matching uses the first alternative in that order that is a prefix of the rest
        // of the component, never a later one: "{a,ab}" takes "a" from "ab".
        std::set<std::string> alternatives;

        static Token literal(std::string text);
        static Token zeroOrMoreWildcard();
        static Token singleCharWildcard();
        static Token singleChar(bool isExclusion, std::set<CharacterGroup> groups);
        static Token strings(std::set<std::string> alternatives);

        friend bool operator==(const Token&, const Token&) = default;
    };

    // One path component of a pattern.
    struct Component {
        using Token = OSCAddressPattern::Token;
        std::vector<Token> tokens;
        friend bool operator==(const Component&, const Component&) = default;
    };

    // The empty pattern, which matches nothing.
    OSCAddressPattern();
    // Pure ASCII text (CR LF included) is kept as it is; other text is converted with
    // lossyASCII(). Never fails.
    OSCAddressPattern(std::string_view text);
    OSCAddressPattern(const char* text);
    OSCAddressPattern(const std::string& text);

    // Valid while this pattern lives.
    std::string_view rawAddress() const { return rawAddress_.text(); }
    // The ASCII bytes of rawAddress(), no terminator and no padding; valid while this lives.
    std::span<const std::uint8_t> rawData() const { return rawAddress_.bytes(); }
    // rawAddress() unchanged.
    std::string description() const { return std::string(rawAddress_.text()); }

    // Whether the concrete `address` (any UTF-8) matches this pattern. Parses the pattern on
    // every call; the empty pattern and "/" match nothing, not even "/".
    bool matches(std::string_view address) const;

    // Splits an address or a pattern at "/", after dropping one leading and then one trailing
    // "/": "/a//b" gives "a", "" and "b"; "" and "/" give nothing.
    static std::vector<std::string_view> pathComponents(std::string_view text);
    static std::vector<CharacterView> pathComponents(const CharacterView& text);

    static std::vector<Component> components(std::string_view pattern);
    static std::vector<Token> tokens(std::string_view component);
    static std::vector<Token> tokens(const CharacterView& component);
    // The contents of "[...]" without the brackets: (isExclusion, groups).
    static std::pair<bool, std::set<CharacterGroup>> characterGroups(std::string_view contents);

    // Whether one address component matches one pattern component. The view form takes a slice
    // of a larger, already segmented address; the text form segments `component` itself.
    static bool matchComponent(std::string_view component, const std::vector<Token>& tokens);
    static bool matchComponent(const CharacterView& component, const std::vector<Token>& tokens);

    friend bool operator==(const OSCAddressPattern&, const OSCAddressPattern&) = default;

  private:
    friend struct OSCMessage;
    struct ASCII {};
    // For text already known to be ASCII (a decoded address): no second look at each byte. A
    // long one shares `buffer`, the datagram it was found in.
    void assign(std::string_view text, const std::shared_ptr<const std::uint8_t[]>& buffer,
                ASCII) {
        rawAddress_.assign(
            std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()), buffer);
    }

    CompactBytes<48> rawAddress_;
};

}  // namespace kavrin

template <>
struct std::hash<kavrin::OSCAddressPattern> {
    std::size_t operator()(const kavrin::OSCAddressPattern& pattern) const noexcept;
};
template <>
struct std::hash<kavrin::OSCAddressPattern::CharacterGroup> {
    std::size_t operator()(const kavrin::OSCAddressPattern::CharacterGroup& group) const noexcept;
};
template <>
struct std::hash<kavrin::OSCAddressPattern::Token> {
    std::size_t operator()(const kavrin::OSCAddressPattern::Token& token) const noexcept;
};
template <>
struct std::hash<kavrin::OSCAddressPattern::Component> {
    std::size_t operator()(const kavrin::OSCAddressPattern::Component& component) const noexcept;
};
