#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "osc/pattern/CharacterView.hpp"
#include "osc/pattern/OSCAddressPattern.hpp"
#include "osc/pattern/detail/ComponentSyntax.hpp"

namespace kavrin {

// Internal to the pattern layer: the one compiled form of a pattern component that every
// matcher runs (matches(), matchComponent(), OSCCompiledPattern and through it the address
// space). Every step but a star takes some characters at a position in one way only; a star
// takes any number. Steps view text they do not own: the pattern's, or the tokens' they were
// lowered from. Plain values and functions: any thread.
struct MatchStep {
    enum class Kind : std::uint8_t {
        text,       // characters that stand as written
        oneOf,      // "?" or "[...]": one character, judged by the verdicts below
        braceList,  // "{...}" read from a pattern: `text` holds its contents
        strings,    // "{...}" kept or lowered from a token: its alternatives listed in order
        star,       // "*"
    };
    Kind kind = Kind::text;
    bool acceptsCRLF = false;    // oneOf: the verdict on the one character CR LF
    bool exclusion = false;      // oneOf: the verdict on other characters not listed
    bool thenSeparator = false;  // star: then the "/" that ends its component (a whole path's)
    std::uint32_t span = 0;      // star: how many steps follow it in its component (kept steps)
    std::string_view text;       // text, braceList
    // oneOf: the listed characters that are neither one ASCII byte nor CR LF (only lowered
    // steps have any); strings: the alternatives. As [first, first + count) of the pieces.
    std::uint32_t first = 0;
    std::uint32_t count = 0;
    std::uint64_t bits[2] = {0, 0};  // oneOf: the verdict on each ASCII byte
};

// Text that a step lists: an alternative of a brace list, or a character of a bracket. Its
// first eight bytes are also one word, so that alternatives are compared at once.
struct MatchPiece {
    std::string_view text;
    std::uint64_t head = 0;  // the first eight bytes or fewer, the first byte low
    std::uint64_t mask = 0;  // ones over the bytes in head

    explicit MatchPiece(std::string_view bytes) : text(bytes) {
        const std::size_t size = std::min<std::size_t>(bytes.size(), 8);
        std::memcpy(&head, bytes.data(), size);
        std::memset(&mask, 0xFF, size);
    }
};

// The steps of a pattern's ASCII text from some point up to the "/" or end that ends its
// component, read one at a time as a search asks for them: nothing is kept, so reading needs
// no memory, and none of them lists pieces. A search judges a step at many positions, so a
// bracket comes as its oneOf step.
class PatternSteps {
  public:
    explicit PatternSteps(std::string_view text) : text_(text) {}
    // The next step, or null at the component's end; valid until the next call.
    const MatchStep* next();
    std::size_t position() const { return at_; }

  private:
    std::string_view text_;
    std::size_t at_ = 0;
    MatchStep step_;
};

namespace matchStepDetail {

// The bits [from, to) of one word, 0 <= from, to <= 64.
inline std::uint64_t bitsBetween(unsigned from, unsigned to) {
    if (from >= to) return 0;
    return (to - from == 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << (to - from)) - 1) << from;
}

// The ASCII codes a range of a bracket takes, both included, CR LF counting as a line feed; none
// for a reversed range ("z-a") or one with a non-ASCII bound, which deliberately take nothing.
[[gnu::always_inline]] inline std::optional<std::pair<std::uint8_t, std::uint8_t>> asciiRange(
    std::string_view start, std::string_view end) {
    const auto low = CharacterView::asciiValue(start);
    const auto high = CharacterView::asciiValue(end);
    if (!low || !high || *low > *high) return std::nullopt;
    return std::pair(*low, *high);
}

// Makes the verdicts of a oneOf step from the groups of a bracket expression, as
// componentSyntax::scanGroups or a token tells them. `pieces` may be null where every character
// is one ASCII byte or CR LF, as in a pattern's text.
class OneOfBuilder {
  public:
    OneOfBuilder(MatchStep& step, std::vector<MatchPiece>* pieces) : step_(step), pieces_(pieces) {
        step_.kind = MatchStep::Kind::oneOf;
        if (pieces_) step_.first = static_cast<std::uint32_t>(pieces_->size());
    }

    [[gnu::always_inline]] void single(std::string_view character) {
        if (character.size() == 1 && static_cast<unsigned char>(character[0]) < 0x80) {
            const auto byte = static_cast<unsigned char>(character[0]);
            step_.bits[byte >> 6] |= std::uint64_t{1} << (byte & 63);
        } else if (character == "\r\n") {
            step_.acceptsCRLF = true;
        } else {
            pieces_->emplace_back(character);
            ++step_.count;
        }
    }

    [[gnu::always_inline]] void range(std::string_view start, std::string_view end) {
        const auto bounds = asciiRange(start, end);
        if (!bounds) return;
        const unsigned from = bounds->first;
        const unsigned to = bounds->second + 1u;
        step_.bits[0] |= bitsBetween(std::min(from, 64u), std::min(to, 64u));
        step_.bits[1] |= bitsBetween(std::max(from, 64u) - 64, std::max(to, 64u) - 64);
        if (from <= '\n' && '\n' < to) step_.acceptsCRLF = true;
    }

    // The verdicts so far are whether a group takes the character; an exclusion inverts them.
    void finish(bool isExclusion) {
        step_.exclusion = isExclusion;
        if (!isExclusion) return;
        step_.bits[0] = ~step_.bits[0];
        step_.bits[1] = ~step_.bits[1];
        step_.acceptsCRLF = !step_.acceptsCRLF;
    }

  private:
    MatchStep& step_;
    std::vector<MatchPiece>* pieces_;
};

}  // namespace matchStepDetail

// Makes `step` the oneOf step of "?", which is "[!]": an exclusion of nothing.
inline void makeAny(MatchStep& step) {
    matchStepDetail::OneOfBuilder(step, nullptr).finish(true);
}

// Makes `step` the oneOf step of a bracket's contents in a pattern's text. CR LF is one
// character there, at which a range may end: such contents are read character-wise.
void readBracketByCharacters(std::string_view contents, MatchStep& step);
inline void readBracket(std::string_view contents, MatchStep& step) {
    for (const char c : contents) {
        if (c == '\r') return readBracketByCharacters(contents, step);
    }
    matchStepDetail::OneOfBuilder builder(step, nullptr);
    builder.finish(componentSyntax::scanGroups(componentSyntax::PatternBytes(contents), builder));
}

// Whether a bracket's contents in a pattern's text take `byte`, an ASCII byte other than "/" and
// a character of its own: the verdict of readBracket's step.
bool bracketTakesByte(std::string_view contents, unsigned char byte);

// The bytes that a brace list's contents in a pattern's text, which the "}" follows there, take
// of the `left` bytes at `at`, or -1: matchBytes::braceListTakes.
std::ptrdiff_t braceListTakesBytes(std::string_view contents, const char* at, std::size_t left);

// Steps and the pieces they list, kept to be run many times or made from tokens.
struct MatchProgram {
    std::vector<MatchStep> steps;
    std::vector<MatchPiece> pieces;

    // Appends the steps of one component of a pattern's ASCII text.
    void read(std::string_view component);
    // Appends the steps of a parsed component, which must outlive them.
    void lower(const std::vector<OSCAddressPattern::Token>& tokens);
    // Appends the oneOf step of a bracket expression's groups.
    void addOneOf(bool isExclusion, const std::set<OSCAddressPattern::CharacterGroup>& groups);
    // Appends the strings step of a brace list's alternatives, which must outlive it.
    void addStrings(const std::set<std::string>& alternatives);

  private:
    void setSpans(std::size_t from);
};

// Whether the oneOf `step`, whose pieces start at `pieces`, takes `character`: one character
// as its UTF-8 bytes.
bool oneOfAccepts(const MatchStep& step, const MatchPiece* pieces, std::string_view character);

// Whether a wildcard may open at a character of a pattern (a "[" or "{" never closed does not).
[[gnu::always_inline]] inline bool opensWildcard(char c) {
    static constexpr auto opens = [] {
        std::array<bool, 256> table{};
        for (const unsigned char wildcard : {'*', '?', '[', '{'}) table[wildcard] = true;
        return table;
    }();
    return opens[static_cast<unsigned char>(c)];
}

}  // namespace kavrin
