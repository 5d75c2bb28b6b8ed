#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>
#include <type_traits>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "osc/pattern/CharacterView.hpp"
#include "osc/pattern/detail/ComponentSyntax.hpp"
#include "osc/pattern/detail/MatchStep.hpp"
#include "osc/pattern/detail/PositionSearch.hpp"
#include "support/ASCIIScan.hpp"

// Internal to the pattern layer: running steps byte by byte, where every byte of the text is a
// character. Inline, for the compiled pattern and matches(): with calls, saving and restoring
// registers would cost more than matching a short address. Plain functions: any thread.
namespace kavrin::matchBytes {

// Whether [a, a + n) and [b, b + n) hold the same bytes. The texts are a few bytes long, so
// overlapping word loads beat a library call; nothing outside the two ranges is read.
[[gnu::always_inline]] inline bool sameBytes(const char* a, const char* b, std::size_t n) {
    if (n >= 8) {
        for (std::size_t i = 0; i + 8 < n; i += 8) {
            if (loadWord<std::uint64_t>(a + i) != loadWord<std::uint64_t>(b + i)) return false;
        }
        return loadWord<std::uint64_t>(a + n - 8) == loadWord<std::uint64_t>(b + n - 8);
    }
    if (n >= 4) {
        return loadWord<std::uint32_t>(a) == loadWord<std::uint32_t>(b) &&
               loadWord<std::uint32_t>(a + n - 4) == loadWord<std::uint32_t>(b + n - 4);
    }
    if (n >= 2) {
        return loadWord<std::uint16_t>(a) == loadWord<std::uint16_t>(b) &&
               loadWord<std::uint16_t>(a + n - 2) == loadWord<std::uint16_t>(b + n - 2);
    }
    return n == 0 || *a == *b;
}

// The first "/" in [at, end), or end; with `orNonASCII`, the first "/" or byte above 0x7F. Byte
// by byte, four to a turn of the loop: a star skips a few bytes, fewer than one word's set-up
// would cost. As signed bytes, those are among the ones up to "/", which one compare finds.
template <bool orNonASCII = false>
[[gnu::always_inline]] inline const char* findSlash(const char* at, const char* end) {
    const auto stops = [](char c) {
        if constexpr (orNonASCII) {
            return static_cast<signed char>(c) <= '/' &&
                   (c == '/' || static_cast<signed char>(c) < 0);
        } else {
            return c == '/';
        }
    };
    for (; end - at >= 4; at += 4) {
        if (stops(at[0])) return at;
        if (stops(at[1])) return at + 1;
        if (stops(at[2])) return at + 2;
        if (stops(at[3])) return at + 3;
    }
    while (at != end && !stops(*at)) ++at;
    return at;
}

// The high bit of each byte of `word` as bit i for byte i, the other bits ignored.
[[gnu::always_inline]] inline std::uint32_t byteMask(std::uint64_t word) {
    return static_cast<std::uint32_t>(
        (((word >> 7) & asciiScanDetail::ones) * 0x0102040810204080ULL) >> 56);
}

// Bit i set where byte i of [p, p + N), pattern text, opens no wildcard and equals byte i of
// [a, a + N) of the address (N is 8 or 16); both ranges are read. A "[" is found as the "{" that
// it becomes with bit 5 set, which nothing else does.
template <int N>
[[gnu::always_inline]] inline std::uint32_t literalBytes(const char* p, const char* a) {
#if defined(__SSE2__)
    const auto load = [](const char* at) {
        if constexpr (N == 16) {
            return _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
        } else {
            return _mm_loadl_epi64(reinterpret_cast<const __m128i*>(at));
        }
    };
    const auto text = load(p);
    const auto wild =
        _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(text, _mm_set1_epi8('*')),
                                  _mm_cmpeq_epi8(text, _mm_set1_epi8('?'))),
                     _mm_cmpeq_epi8(_mm_or_si128(text, _mm_set1_epi8(0x20)), _mm_set1_epi8('{')));
    const auto same = static_cast<std::uint32_t>(
        _mm_movemask_epi8(_mm_andnot_si128(wild, _mm_cmpeq_epi8(text, load(a)))));
    return N == 16 ? same : same & 0xFF;
#else
    const auto half = [](const char* p, const char* a) {
        const auto word = loadWord<std::uint64_t>(p);
        const auto wild = bytesEqual(word, '*') | bytesEqual(word, '?') |
                          bytesEqual(word | asciiScanDetail::ones * 0x20, '{');
        return byteMask(bytesEqual(word ^ loadWord<std::uint64_t>(a), 0) & ~wild);
    };
    if constexpr (N == 16) return half(p, a) | half(p + 8, a + 8) << 8;
    return half(p, a);
#endif
}

// The bytes from `at` that end an alternative of a brace list ("," and "}") or the component
// ("/"), bit i for the byte at + i; `span` is set to how many bytes from `at` the bits cover.
// Bytes at or past `last` stop nothing. [first, last) may be read: one block of sixteen where
// the text has them, so that a list's alternatives take one search between them, not one each.
[[gnu::always_inline]] inline std::uint32_t listStops(const char* first, const char* at,
                                                      const char* last, std::ptrdiff_t& span) {
#if defined(__SSE2__)
    if (last - first >= 16) {
        const char* const base = last - at >= 16 ? at : last - 16;
        const auto block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(base));
        const auto stops = _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(block, _mm_set1_epi8(',')),
                                                     _mm_cmpeq_epi8(block, _mm_set1_epi8('}'))),
                                        _mm_cmpeq_epi8(block, _mm_set1_epi8('/')));
        span = base + 16 - at;
        return static_cast<std::uint32_t>(_mm_movemask_epi8(stops)) >> (at - base);
    }
#endif
    const std::uint64_t word = componentSyntax::loadWordUpTo(first, at, last);
    const std::uint64_t stops =
        bytesEqual(word, ',') | bytesEqual(word, '}') | bytesEqual(word, '/');
    span = 8;
    return byteMask(stops);
}

// The brace list whose first alternative begins at `alternative`, up to its "}": what it takes
// of the `left` bytes at `a`, its shortest alternative that is a prefix, or -1; `next` is set
// past the "}", or to null where a "/" or `last` comes first and there is no list. The
// alternatives are the pieces between commas, empty ones dropped; a list of none takes nothing
// and matches, deliberately. [first, last) may be read.
[[gnu::always_inline]] inline std::ptrdiff_t braceListTakes(const char* first,
                                                            const char* alternative,
                                                            const char* last, const char* a,
                                                            std::size_t left, const char*& next) {
    // SIZE_MAX while no alternative is read, then SIZE_MAX - 1 while none is a prefix.
    std::size_t shortest = SIZE_MAX;
    for (const char* at = alternative; at < last;) {
        std::ptrdiff_t span;
        for (std::uint32_t stops = listStops(first, at, last, span); stops != 0;
             stops &= stops - 1) {
            const char* const stop = at + std::countr_zero(stops);
            const char c = *stop;
            if (c == '/') {
                next = nullptr;
                return -1;
            }
            const auto size = static_cast<std::size_t>(stop - alternative);
            if (size != 0) {
                shortest = std::min(shortest, SIZE_MAX - 1);
                if (size < shortest && size <= left && sameBytes(a, alternative, size)) {
                    shortest = size;
                }
            }
            alternative = stop + 1;
            if (c == '}') {
                next = alternative;
                if (shortest == SIZE_MAX) return 0;
                return shortest == SIZE_MAX - 1 ? -1 : static_cast<std::ptrdiff_t>(shortest);
            }
        }
        at += span;
    }
    next = nullptr;
    return -1;
}

// Whether the "[" at `open` begins the commonest bracket, one range such as "[0-9]" that
// bracketTakes would read alike: its bounds neither CR nor a byte that ends the contents or
// changes their reading. [open, last) may be read.
[[gnu::always_inline]] inline bool isPlainRange(const char* open, const char* last) {
    if (last - open < 5 || open[2] != '-' || open[4] != ']') return false;
    const auto low = open[1];
    const auto high = open[3];
    return low != '!' && low != '-' && low != ']' && low != '/' && low != '\r' && high != ']' &&
           high != '/' && high != '\r';
}

// The bracket that the "[" at `open` begins, up to its "]": whether it takes `byte`, an ASCII
// byte other than "/" and a character of its own; `next` is set past the "]", or to null where
// a "/" or `last` comes first and there is no bracket. The groups are those of
// componentSyntax::scanGroups, a dash ranging from the latest single not yet in a range, kept
// here as the bytes of one word; contents holding a CR, which may begin the one character
// CR LF, or more singles than a word holds, are judged by bracketTakesByte.
[[gnu::always_inline]] inline bool bracketTakes(const char* open, const char* last,
                                                unsigned char byte, const char*& next) {
    const char* c = open + 1;
    const bool isExclusion = c != last && *c == '!';
    if (isExclusion) ++c;
    std::uint64_t singles = 0;  // the latest in the low byte
    unsigned count = 0;
    bool taken = false;
    bool rare = false;
    for (;;) {
        if (c == last || *c == '/') {
            next = nullptr;
            return false;
        }
        const auto character = static_cast<unsigned char>(*c);
        if (character == ']') break;
        if (character == '-') {
            if (count == 0 || (c + 1 != last && c[1] == ']')) {
                taken |= byte == '-';  // a dash of its own
                ++c;
                continue;
            }
            if (c + 1 == last || c[1] == '/') {
                next = nullptr;
                return false;
            }
            const auto low = static_cast<unsigned char>(singles);
            const auto high = static_cast<unsigned char>(c[1]);
            singles >>= 8;
            --count;
            taken |= low <= byte && byte <= high;
            rare |= high == '\r';
            c += 2;
            continue;
        }
        rare |= character == '\r' || count == 8;
        singles = singles << 8 | character;
        ++count;
        ++c;
    }
    next = c + 1;
    if (rare) return bracketTakesByte({open + 1, static_cast<std::size_t>(c - open - 1)}, byte);
    const std::uint64_t kept = count >= 8 ? ~std::uint64_t{0} : (std::uint64_t{1} << 8 * count) - 1;
    taken |= (bytesEqual(singles, byte) & kept) != 0;
    return taken != isExclusion;
}

// The bytes a step other than a star takes at `at` in [at, end), or -1. [first, end) may be
// read; `pieces` are the program's, or null for steps read from a pattern's text. Only steps
// read from a pattern's text are brace lists (`fromText`): a program lists the alternatives.
template <bool fromText>
[[gnu::always_inline]] inline std::ptrdiff_t takeBytes(const MatchStep& step,
                                                       const MatchPiece* pieces, const char* first,
                                                       const char* at, const char* end) {
    const auto left = static_cast<std::size_t>(end - at);
    switch (step.kind) {
        case MatchStep::Kind::text: {
            const std::size_t size = step.text.size();
            return size <= left && sameBytes(at, step.text.data(), size)
                       ? static_cast<std::ptrdiff_t>(size)
                       : -1;
        }
        case MatchStep::Kind::oneOf: {
            if (left == 0) return -1;
            const auto byte = static_cast<unsigned char>(*at);  // ASCII: a byte per character
            // "/" ends the component being matched.
            return byte != '/' && (step.bits[(byte >> 6) & 1] >> (byte & 63) & 1) != 0 ? 1 : -1;
        }
        case MatchStep::Kind::braceList:
            if constexpr (fromText) return braceListTakesBytes(step.text, at, left);
            break;
        case MatchStep::Kind::strings: {
            if (step.count == 0) return 0;
            // The alternatives are in the set's order (MatchProgram): those that are prefixes of
            // one text are prefixes of one another, and a prefix comes first, so the first that
            // fits is the shortest.
            // Once for all alternatives.
            const std::uint64_t word = componentSyntax::loadWordUpTo(first, at, end);
            for (const MatchPiece* piece = pieces + step.first;
                 piece != pieces + step.first + step.count; ++piece) {
                const std::size_t size = piece->text.size();
                if (size <= left && (word & piece->mask) == piece->head &&
                    (size <= 8 || sameBytes(at + 8, piece->text.data() + 8, size - 8))) {
                    return static_cast<std::ptrdiff_t>(size);
                }
            }
            return -1;
        }
        case MatchStep::Kind::star:
            break;
    }
    return -1;
}

// The search from a star through the rest of its component, [begin, stop). Out of line, so
// that steps without a star in the middle need no stack frame for it.
template <class Steps>
[[gnu::noinline]] bool searchBytes(Steps& steps, const MatchPiece* pieces, const char* begin,
                                   const char* stop) {
    return positionSearch::reachesEnd(steps, static_cast<std::size_t>(stop - begin),
                                      [&](const MatchStep& step, std::size_t p) {
                                          return takeBytes<std::is_same_v<Steps, PatternSteps>>(
                                              step, pieces, begin, begin + p, stop);
                                      });
}

bool runBytesAfterSearch(const MatchStep* star, const MatchStep* last, const MatchPiece* pieces,
                         const char* first, const char* at, const char* end);

// A miss that the bytes [first, end) tell where each is a character; else `byCharacters()`
// answers. Out of line: few addresses miss.
template <class F>
[[gnu::noinline]] bool missUnlessJoined(const char* first, const char* end, F byCharacters) {
    const std::string_view bytes(first, static_cast<std::size_t>(end - first));
    return !CharacterView::isOneBytePerCharacter(bytes) && byCharacters();
}

// Whether the steps [step, last) take exactly the bytes [at, end). [first, end) may be read. No
// step takes a "/" but text holding one, and a star takes up to the next "/" (searching up to it
// when more of its component follows): so the steps may be one component's, over a component
// without "/", or a whole path's, the components' steps joined by "/", over a whole address.
// Where the bytes are not known to be a character each, the steps must be textsAndStars ones,
// and `byCharacters()` answers instead once a star meets a byte above 0x7F or a miss is found in
// bytes that are not a character each.
template <class F = std::nullptr_t>
[[gnu::always_inline]] inline bool runBytes(const MatchStep* step, const MatchStep* last,
                                            const MatchPiece* pieces, const char* first,
                                            const char* at, const char* end,
                                            F byCharacters = nullptr) {
    constexpr bool checked = std::is_same_v<F, std::nullptr_t>;
    const auto miss = [&] {
        if constexpr (checked) {
            return false;
        } else {
            return missUnlessJoined(first, end, byCharacters);
        }
    };
    for (; step != last; ++step) {
        if (step->kind != MatchStep::Kind::star) {
            if constexpr (checked) {
                const std::ptrdiff_t taken = takeBytes<false>(*step, pieces, first, at, end);
                if (taken < 0) return false;
                at += taken;
            } else {
                const std::size_t size = step->text.size();  // textsAndStars: text
                if (static_cast<std::size_t>(end - at) < size ||
                    !sameBytes(at, step->text.data(), size)) {
                    return miss();
                }
                at += size;
            }
            continue;
        }
        if constexpr (checked) {
            // As a tail call, so that the steps without a search need no registers saved.
            if (step->span != 0) return runBytesAfterSearch(step, last, pieces, first, at, end);
        }
        at = findSlash<!checked>(at, end);
        if (step->thenSeparator) {
            // Unchecked, the star took only ASCII bytes up to the end: a miss all the same.
            if (at == end) return false;
            if constexpr (!checked) {
                if (*at != '/') return byCharacters();
            }
            ++at;
        } else if constexpr (!checked) {
            // The path's last step: a "/" here may join a byte above 0x7F after it.
            if (at != end) return miss();
        }
    }
    return at == end || miss();
}

// Whether the byte-wise walk over `steps` may skip telling whether the address is a byte per
// character, leaving it to the stars: every step is text without a CR, or a star that ends its
// component. Text of the pattern is ASCII, so that the bytes it takes are characters, and only a
// byte above 0x7F next to one of them could join it, which a star that meets it or a miss then
// tells. A CR joins only a line feed after it, which text never takes and a star takes whole.
inline bool textsAndStars(const MatchStep* step, const MatchStep* last) {
    for (; step != last; ++step) {
        if (step->kind == MatchStep::Kind::star
                ? step->span != 0
                : step->kind != MatchStep::Kind::text ||
                      step->text.find('\r') != std::string_view::npos) {
            return false;
        }
    }
    return true;
}

// The star `star`, which more of its component follows, searched through that component; then
// the steps after it. Out of line: few patterns have such a star.
[[gnu::noinline]] inline bool runBytesAfterSearch(const MatchStep* star, const MatchStep* last,
                                                  const MatchPiece* pieces, const char* first,
                                                  const char* at, const char* end) {
    const char* const stop = findSlash(at, end);
    const MatchStep* const after = star + 1 + star->span;
    positionSearch::ArraySteps steps(star, after);
    if (!searchBytes(steps, pieces, at, stop)) return false;
    at = stop;
    if (after[-1].thenSeparator) {
        if (at == end) return false;
        ++at;
    }
    return runBytes(after, last, pieces, first, at, end);
}

// Whether the steps of one component take exactly `text`, byte by byte; nothing when the text
// is not a byte per character, or holds a "/", which byte-wise would end the component, and
// the answer is not yes: then characters must answer.
[[gnu::always_inline]] inline std::optional<bool> matchesComponentBytes(const MatchStep* first,
                                                                        const MatchStep* last,
                                                                        const MatchPiece* pieces,
                                                                        std::string_view text) {
    if (!CharacterView::isOneBytePerCharacter(text)) return std::nullopt;
    const char* const end = text.data() + text.size();
    // Byte-wise a "/" only stops a star or a oneOf, which never makes a wrong yes.
    if (runBytes(first, last, pieces, text.data(), text.data(), end)) return true;
    if (findSlash(text.data(), end) != end) return std::nullopt;
    return false;
}

// Whether a whole path's steps (a pattern with components) match `address`; when the address
// is not a byte per character and a wildcard is met, `byCharacters()` answers, as a tail call
// so that the byte-wise path needs no registers saved. `isTextsAndStars`: textsAndStars(first,
// last).
template <bool isTextsAndStars, class F>
[[gnu::always_inline]] inline bool matchesPathBytes(const MatchStep* first, const MatchStep* last,
                                                    const MatchPiece* pieces,
                                                    std::string_view address, F byCharacters) {
    const char* const begin = address.data();
    const char* at = begin;
    const char* end = at + address.size();
    // One leading and then one trailing "/" go, as pathComponents drops them.
    if (at != end && *at == '/') ++at;
    if (at != end && end[-1] == '/') --end;
    // An address without components matches no pattern that has some.
    if (at == end) return false;
    // Literal text before the first wildcard answers alike whatever the address holds (see
    // matchRun::matchesPattern).
    if (first != last && first->kind == MatchStep::Kind::text) {
        if (takeBytes<false>(*first, pieces, begin, at, end) < 0) return false;
        at += first->text.size();
        ++first;
    }
    if (first == last) return at == end;
    if constexpr (isTextsAndStars) {
        return runBytes(first, last, pieces, begin, at, end, byCharacters);
    }
    if (!CharacterView::isOneBytePerCharacter(address)) return byCharacters();
    return runBytes(first, last, pieces, begin, at, end);
}

}  // namespace kavrin::matchBytes
