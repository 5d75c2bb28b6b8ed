#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

#include "support/ASCIIScan.hpp"

// Internal to the pattern layer: the one reading of a pattern component's wildcard syntax,
// shared by the parsed form (OSCAddressPattern::tokens, characterGroups) and the match steps.
// It reads through a text of characters: PatternBytes for a pattern's ASCII text, CharacterView
// for any UTF-8. Plain functions: any thread.
namespace kavrin::componentSyntax {

// Up to eight bytes from `at` in one word, the first byte low; those past `end` read as zero.
// [first, end) may be read: near its end the last eight bytes are read and shifted, so that
// short texts need no byte loop.
[[gnu::always_inline]] inline std::uint64_t loadWordUpTo(const char* first, const char* at,
                                                         const char* end) {
    const std::ptrdiff_t left = end - at;
    if (left >= 8) return loadWord<std::uint64_t>(at);
    if (left <= 0) return 0;
    if (end - first >= 8) return loadWord<std::uint64_t>(end - 8) >> (8 * (8 - left));
    std::uint64_t word = 0;
    for (std::ptrdiff_t i = 0; i < left; ++i) {
        word |= std::uint64_t{static_cast<unsigned char>(at[i])} << (8 * i);
    }
    return word;
}

// A pattern's text, a byte per character, with CharacterView's operations inline. It may run on
// past the component being read, which a "/" ends: nothing is found past one. (CR LF, one
// character, matters only between brackets: see readBracket.)
class PatternBytes {
  public:
    explicit PatternBytes(std::string_view text) : text_(text) {}
    std::size_t size() const { return text_.size(); }
    bool empty() const { return text_.empty(); }
    std::string_view text() const { return text_; }
    std::string_view operator[](std::size_t i) const { return {text_.data() + i, 1}; }
    PatternBytes slice(std::size_t from, std::size_t to) const {
        return PatternBytes({text_.data() + from, to - from});
    }
    // A word at a time, the last one read from the end of the text: matches() finds every
    // closing bracket and comma of the pattern on every call.
    [[gnu::always_inline]] std::optional<std::size_t> find(std::string_view character,
                                                           std::size_t from) const {
        const char* const first = text_.data();
        const char* const end = first + text_.size();
        for (const char* at = first + from; at < end; at += 8) {
            // Bytes past the end read as zero, which is neither.
            const std::uint64_t word = loadWordUpTo(first, at, end);
            const std::uint64_t stops = bytesEqual(word, '/') | bytesEqual(word, character[0]);
            if (stops == 0) continue;
            const std::size_t i = static_cast<std::size_t>(at - first) +
                                  static_cast<std::size_t>(std::countr_zero(stops)) / 8;
            if (text_[i] == '/') return std::nullopt;
            return i;
        }
        return std::nullopt;
    }

  private:
    std::string_view text_;
};

// What the character at some index of a component begins.
struct Reading {
    enum class Kind : std::uint8_t { literal, star, any, bracket, brace };
    Kind kind = Kind::literal;
    std::size_t next = 0;  // the index after it
    // bracket, brace: the characters strictly between the brackets or braces ("[]" has none)
    std::size_t contentsBegin = 0;
    std::size_t contentsEnd = 0;
};

template <class Text>
[[gnu::always_inline]] inline Reading read(const Text& component, std::size_t i) {
    const std::string_view character = component[i];
    if (character == "*") {
        std::size_t next = i + 1;
        while (next < component.size() && component[next] == "*") ++next;  // a run is one star
        return {Reading::Kind::star, next};
    }
    if (character == "?") return {Reading::Kind::any, i + 1};
    if (character == "[") {
        if (const auto close = component.find("]", i)) {
            return {Reading::Kind::bracket, *close + 1, i + 1, *close};
        }
        // Deliberate: an unclosed "[" falls through to the brace rule, so "[a,b}" is a list.
    }
    if (character == "{" || character == "[") {
        if (const auto close = component.find("}", i)) {
            return {Reading::Kind::brace, *close + 1, i + 1, *close};
        }
    }
    // Anything else, unmatched "]" and "}" and unclosed openers included, is literal.
    return {Reading::Kind::literal, i + 1};
}

// Reads a whole component and tells `sink`, in order: literal(text) for each run of literal
// characters, star(), any(), bracket(contents), brace(contents).
template <class Text, class Sink>
void scan(const Text& component, Sink& sink) {
    std::size_t literalStart = 0;  // the literal run is [literalStart, i)
    std::size_t i = 0;
    while (i < component.size()) {
        const Reading reading = read(component, i);
        const auto contents = component.slice(reading.contentsBegin, reading.contentsEnd);
        if (reading.kind != Reading::Kind::literal && literalStart < i) {
            sink.literal(component.slice(literalStart, i));
        }
        if (reading.kind == Reading::Kind::star) sink.star();
        if (reading.kind == Reading::Kind::any) sink.any();
        if (reading.kind == Reading::Kind::bracket) sink.bracket(contents);
        if (reading.kind == Reading::Kind::brace) sink.brace(contents);
        i = reading.next;
        if (reading.kind != Reading::Kind::literal) literalStart = i;
    }
    if (literalStart < i) sink.literal(component.slice(literalStart, i));
}

// Reads the contents of "[...]", telling `sink` single(character) and range(low, high) for its
// groups; returns whether it is an exclusion ("[!...]"). The first "-" of what remains is a
// literal dash when it stands first or last, else a range of its two neighbours, which leave;
// characters before a range stay and may pair with a later dash. So the characters read so far
// wait on a stack, a dash pairs the top one with the next, and those left at the end are
// singles, then the literal dash, if one was seen.
template <class Text, class Sink>
[[gnu::always_inline]] inline bool scanGroups(const Text& contents, Sink& sink) {
    if (contents.empty()) return false;
    const bool isExclusion = contents[0] == "!";
    std::array<std::uint32_t, 32> small;
    std::unique_ptr<std::uint32_t[]> large;  // only for long contents
    std::uint32_t* waiting = small.data();
    if (contents.size() > small.size()) {
        large = std::make_unique<std::uint32_t[]>(contents.size());
        waiting = large.get();
    }
    std::size_t count = 0;
    bool sawDash = false;
    for (std::size_t i = isExclusion ? 1 : 0; i < contents.size(); ++i) {
        if (contents[i] != "-") {
            waiting[count++] = static_cast<std::uint32_t>(i);
        } else if (count == 0 || i + 1 == contents.size()) {
            sawDash = true;
        } else {
            sink.range(contents[waiting[--count]], contents[i + 1]);
            ++i;
        }
    }
    for (std::size_t k = 0; k < count; ++k) sink.single(contents[waiting[k]]);
    if (sawDash) sink.single("-");
    return isExclusion;
}

// The alternatives of the contents of "{...}", one by one: the pieces between commas, empty
// ones dropped.
template <class Text>
class Alternatives {
  public:
    explicit Alternatives(const Text& contents) : contents_(contents) {}
    std::optional<Text> next() {
        while (begin_ <= contents_.size()) {
            const std::size_t begin = begin_;
            const std::size_t comma = contents_.find(",", begin).value_or(contents_.size());
            begin_ = comma + 1;
            if (comma > begin) return contents_.slice(begin, comma);
        }
        return std::nullopt;
    }

  private:
    Text contents_;
    std::size_t begin_ = 0;
};

}  // namespace kavrin::componentSyntax
