#include "osc/pattern/detail/OSCByteMatcher.hpp"

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <vector>

#include "osc/pattern/CharacterView.hpp"
#include "osc/pattern/detail/PositionSearch.hpp"
#include "support/ASCIIScan.hpp"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace kavrin::byteMatcher {

namespace {

// The characters that may open a wildcard; "/" ends a component.
constexpr auto special = [] {
    std::array<bool, 256> table{};
    for (const unsigned char c : {'*', '?', '[', '{'}) table[c] = true;
    return table;
}();

bool mayStartWildcard(char c) {
    return special[static_cast<unsigned char>(c)];
}

constexpr bool littleEndian = std::endian::native == std::endian::little;

// The index of the first and of the last byte marked in a mask of bytesEqual's kind.
std::size_t firstMarked(std::uint64_t mask) {
    return littleEndian ? static_cast<std::size_t>(std::countr_zero(mask)) / 8
                        : static_cast<std::size_t>(std::countl_zero(mask)) / 8;
}
std::size_t lastMarked(std::uint64_t mask) {
    return littleEndian ? (63 - static_cast<std::size_t>(std::countl_zero(mask))) / 8
                        : (63 - static_cast<std::size_t>(std::countr_zero(mask))) / 8;
}
// The marks of the first `count` bytes of a word only, count below 8.
std::uint64_t firstBytes(std::uint64_t mask, std::size_t count) {
    return littleEndian ? mask & ((std::uint64_t{1} << (count * 8)) - 1)
                        : mask & ~(~std::uint64_t{0} >> (count * 8));
}

std::size_t findByte(std::string_view text, std::size_t from, char byte) {
    const std::size_t size = text.size();
    for (; from + 8 <= size; from += 8) {
        const auto marks = bytesEqual(loadWord<std::uint64_t>(text.data() + from),
                                      static_cast<unsigned char>(byte));
        if (marks != 0) return from + firstMarked(marks);
    }
    while (from < size && text[from] != byte) ++from;
    return from;
}

// Whether the groups of a bracket expression's contents (without "[", "]" and a leading "!")
// take `c`, worked out as the groups are made. The first "-" of what remains is a literal dash
// when it stands first or last, else a range of its neighbours, which leave; the characters
// before a range stay and may pair with a later dash; what is left at the end is singles. So
// the characters read so far wait on a stack, and a dash pairs the top one with the next.
bool groupsAccept(std::string_view contents, char c) {
    std::array<char, 64> small;
    std::vector<char> large;
    char* waiting = small.data();
    if (contents.size() > small.size()) {
        large.resize(contents.size());
        waiting = large.data();
    }
    std::size_t count = 0;
    bool sawDash = false;
    for (std::size_t i = 0; i < contents.size(); ++i) {
        const char here = contents[i];
        if (here != '-') {
            waiting[count++] = here;
        } else if (count == 0 || i + 1 == contents.size()) {
            sawDash = true;
        } else {
            // A range takes ASCII only, by code, and a reversed one nothing; all bytes here are
            // ASCII.
            const char low = waiting[--count];
            const char high = contents[++i];
            if (low <= c && c <= high) return true;
        }
    }
    if (sawDash && c == '-') return true;
    return std::memchr(waiting, c, count) != nullptr;
}

// How a brace list's alternatives match at the start of `rest`: the first of them, in the byte
// order of the set they make, that is a prefix of it. The alternatives that are prefixes of one
// text are prefixes of each other, and a prefix comes first in that order, so it is the
// shortest. An empty list matches nothing, at length 0; -1 when no alternative fits.
std::ptrdiff_t braceLength(std::string_view contents, std::string_view rest) {
    std::size_t found = rest.size() + 1;  // past any length that fits
    bool any = false;
    for (std::size_t start = 0; start < contents.size();) {
        const std::size_t comma = findByte(contents, start, ',');
        const std::size_t length = comma - start;
        if (length != 0) {  // empty pieces are dropped
            any = true;
            if (length < found && std::memcmp(contents.data() + start, rest.data(), length) == 0) {
                found = length;
            }
        }
        start = comma + 1;
    }
    if (!any) return 0;
    return found <= rest.size() ? static_cast<std::ptrdiff_t>(found) : -1;
}

// One token of a pattern component, read where it starts.
struct Token {
    enum class Kind { star, any, bracket, brace, literal } kind;
    std::string_view text;  // the bracket's or brace list's contents, or the literal
    bool exclusion = false;
    std::size_t end = 0;  // where the next token starts
};

// Where `byte` first stands from `from` on, within the component: the component's end (a "/" or
// the text's end) when it does not.
std::size_t findInComponent(std::string_view text, std::size_t from, char byte) {
    const std::size_t size = text.size();
    for (; from + 8 <= size; from += 8) {
        const auto word = loadWord<std::uint64_t>(text.data() + from);
        const auto marks =
            bytesEqual(word, static_cast<unsigned char>(byte)) | bytesEqual(word, '/');
        if (marks != 0) return from + firstMarked(marks);
    }
    while (from < size && text[from] != byte && text[from] != '/') ++from;
    return from;
}

// Reads within the component: a bracket or brace list never closes past a "/".
[[gnu::always_inline]] inline Token readToken(std::string_view pattern, std::size_t i) {
    const char c = pattern[i];
    if (c == '*') {
        std::size_t end = i + 1;
        while (end < pattern.size() && pattern[end] == '*') ++end;  // a run of stars is one
        return {Token::Kind::star, {}, false, end};
    }
    if (c == '?') return {Token::Kind::any, {}, false, i + 1};
    if (c == '[' || c == '{') {
        const auto closes = [&](std::size_t at, char byte) {
            return at < pattern.size() && pattern[at] == byte;
        };
        const auto bracketEnd = c == '[' ? findInComponent(pattern, i + 1, ']') : pattern.size();
        if (closes(bracketEnd, ']')) {
            auto contents = pattern.substr(i + 1, bracketEnd - i - 1);
            const bool exclusion = contents.starts_with('!');
            if (exclusion) contents.remove_prefix(1);
            return {Token::Kind::bracket, contents, exclusion, bracketEnd + 1};
        }
        // Deliberately, a "[" without its "]" reads as a "{".
        const auto braceEnd = findInComponent(pattern, i + 1, '}');
        if (closes(braceEnd, '}')) {
            return {Token::Kind::brace, pattern.substr(i + 1, braceEnd - i - 1), false,
                    braceEnd + 1};
        }
    }
    // A run of literal characters, up to the next one that may start a wildcard.
    std::size_t end = i + 1;
    while (end < pattern.size() && !mayStartWildcard(pattern[end])) ++end;
    return {Token::Kind::literal, pattern.substr(i, end - i), false, end};
}

// How many characters of `component` a token other than "*" takes at p; -1 when it does not
// match there. The text may go on past the component's "/" unless the token is literal text: no
// other token takes a "/".
[[gnu::always_inline]] inline std::ptrdiff_t lengthAt(const Token& token,
                                                      std::string_view component, std::size_t p) {
    switch (token.kind) {
        case Token::Kind::any:
            return p < component.size() && component[p] != '/' ? 1 : -1;
        case Token::Kind::bracket:
            if (p >= component.size() || component[p] == '/') return -1;
            return groupsAccept(token.text, component[p]) != token.exclusion ? 1 : -1;
        case Token::Kind::brace:
            return braceLength(token.text, component.substr(p));
        default:
            return component.substr(p).starts_with(token.text)
                       ? static_cast<std::ptrdiff_t>(token.text.size())
                       : -1;
    }
}

// The tokens of a pattern component from i on, read as the search asks for them.
class TokenSteps {
  public:
    TokenSteps(std::string_view pattern, std::string_view component, std::size_t i)
        : pattern_(pattern), component_(component), token_(readToken(pattern, i)) {}
    bool done() const { return done_; }
    void advance() {
        done_ = token_.end == pattern_.size();
        if (!done_) token_ = readToken(pattern_, token_.end);
    }
    bool isStar() const { return token_.kind == Token::Kind::star; }
    std::ptrdiff_t take(std::size_t p) const { return lengthAt(token_, component_, p); }

  private:
    std::string_view pattern_;
    std::string_view component_;
    Token token_;
    bool done_ = false;
};

// The tokens from the star at i on, with the component matched up to `start`.
bool matchFromStar(std::string_view pattern, std::string_view component, std::size_t i,
                   std::size_t start) {
    return positionSearch::reachesEnd(TokenSteps(pattern, component, i), start, component.size());
}

// `start`: where in the component the tokens of `pattern` begin, those before having matched.
// Up to the first star there is one position, moved on token by token.
bool matchComponentFrom(std::string_view pattern, std::string_view component, std::size_t start) {
    std::size_t p = start;
    for (std::size_t i = 0; i < pattern.size();) {
        const Token token = readToken(pattern, i);
        if (token.kind == Token::Kind::star) {
            // A star at the end takes whatever is left.
            if (token.end == pattern.size()) return true;
            return matchFromStar(pattern, component, i, p);
        }
        const std::ptrdiff_t n = lengthAt(token, component, p);
        if (n < 0) return false;
        p += static_cast<std::size_t>(n);
        i = token.end;
    }
    return p == component.size();
}

// Drops one leading and then one trailing "/", as pathComponents does.
std::string_view stripped(std::string_view text) {
    if (text.starts_with('/')) text.remove_prefix(1);
    if (text.ends_with('/')) text.remove_suffix(1);
    return text;
}

}  // namespace

bool matchComponent(std::string_view patternComponent, std::string_view component) {
    return matchComponentFrom(patternComponent, component, 0);
}

// The texts are walked side by side: literal text, the "/" between components included, is
// compared eight bytes at a time where it can be, which is all most patterns need, and each
// wildcard is matched where the walk has got to. Only a star with more tokens after it in its
// component needs a search, handed the rest of that component.
//
// Up to the first wildcard this is exact whatever the address holds: the pattern is ASCII, and
// a "/" that joins the character after it in the address is followed there by a byte no ASCII
// text has. From a wildcard on, where components can line up in other ways, the address must be
// a byte per character, and the pattern free of CR, which could pair with a LF.
std::optional<bool> matches(std::string_view pattern, std::string_view address) {
    pattern = stripped(pattern);
    address = stripped(address);
    // Deliberate: a pattern without components matches nothing, not even "/".
    if (pattern.empty() || address.empty()) return false;
    const char* const p = pattern.data();
    const char* const a = address.data();
    const std::size_t pn = pattern.size();
    const std::size_t an = address.size();
    std::size_t i = 0;               // in the pattern
    std::size_t j = 0;               // in the address
    std::size_t componentStart = 0;  // of the address component j is in
    bool checked = false;            // whether the texts are a byte per character
    for (;;) {
        // Up to the first byte that differs or may open a wildcard: sixteen bytes a step where
        // both texts have them, eight, then one.
        // "[" and "{" differ only in the 0x20 bit: one comparison finds both.
        bool stopped = false;
#if defined(__SSE2__)
        for (; i + 16 <= pn && j + 16 <= an;) {
            const auto word = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + i));
            const auto other = _mm_loadu_si128(reinterpret_cast<const __m128i*>(a + j));
            const auto marks = [&](__m128i equal) {
                return static_cast<unsigned>(_mm_movemask_epi8(equal));
            };
            const auto is = [&](char c) { return _mm_cmpeq_epi8(word, _mm_set1_epi8(c)); };
            const unsigned wild = marks(_mm_or_si128(
                _mm_or_si128(is('*'), is('?')),
                _mm_cmpeq_epi8(_mm_or_si128(word, _mm_set1_epi8(0x20)), _mm_set1_epi8('{'))));
            const unsigned differ = ~marks(_mm_cmpeq_epi8(word, other)) & 0xFFFFu;
            unsigned slashes = marks(is('/'));
            unsigned step = 16;
            if ((wild | differ) != 0) {
                step = static_cast<unsigned>(std::countr_zero(wild | differ));
                slashes &= (1u << step) - 1;
                stopped = true;
            }
            if (slashes != 0)
                componentStart = j + static_cast<std::size_t>(std::bit_width(slashes));
            i += step;
            j += step;
            if (stopped) break;
        }
#endif
        for (; !stopped && i + 8 <= pn && j + 8 <= an;) {
            const std::uint64_t word = loadWord<std::uint64_t>(p + i);
            const std::uint64_t other = loadWord<std::uint64_t>(a + j);
            const std::uint64_t wild = bytesEqual(word, '*') | bytesEqual(word, '?') |
                                       bytesEqual(word | asciiScanDetail::ones * 0x20, '{');
            std::uint64_t slashes = bytesEqual(word, '/');
            std::size_t step = 8;
            if (word != other || wild != 0) {
                const auto differ = ~bytesEqual(word ^ other, 0) & asciiScanDetail::highBits;
                step = firstMarked(wild | differ);
                slashes = firstBytes(slashes, step);
                stopped = true;
            }
            if (slashes != 0) componentStart = j + lastMarked(slashes) + 1;
            i += step;
            j += step;
        }
        for (; i < pn && j < an && !mayStartWildcard(p[i]); ++i, ++j) {
            if (p[i] != a[j]) return false;
            if (p[i] == '/') componentStart = j + 1;
        }
        if (i == pn || !mayStartWildcard(p[i])) return i == pn && j == an;
        if (!checked) {
            // Only a CR from here on could pair with a LF in the pattern. One before is followed
            // by the wildcard, no LF, or by literal text, which was compared with the address,
            // whose check finds a CR LF pair.
            const auto rest = pattern.substr(i);
            if (!CharacterView::isOneBytePerCharacter(address) ||
                (!isPrintableASCII(rest) && rest.find('\r') != std::string_view::npos)) {
                return std::nullopt;
            }
            checked = true;
        }
        const Token token = readToken(pattern, i);
        if (token.kind == Token::Kind::literal) {  // a "[" or "{" left open: plain text
            if (j >= an || a[j] != p[i]) return false;
            ++i;
            ++j;
            continue;
        }
        if (token.kind == Token::Kind::star) {
            const auto componentEnd = findByte(address, j, '/');
            if (token.end == pn || p[token.end] == '/') {
                i = token.end;  // a star that ends its component takes the rest of it
            } else {
                const auto patternEnd = findByte(pattern, token.end, '/');
                if (!matchFromStar(pattern.substr(0, patternEnd),
                                   address.substr(componentStart, componentEnd - componentStart), i,
                                   j - componentStart)) {
                    return false;
                }
                i = patternEnd;
            }
            j = componentEnd;
            continue;
        }
        const std::ptrdiff_t length = lengthAt(token, address, j);
        if (length < 0) return false;
        j += static_cast<std::size_t>(length);
        i = token.end;
    }
}

}  // namespace kavrin::byteMatcher
