#include "osc/pattern/detail/MatchRun.hpp"

#include <algorithm>
#include <bit>
#include <cstdint>

#include "osc/pattern/detail/ComponentSyntax.hpp"
#include "osc/pattern/detail/MatchBytes.hpp"
#include "osc/pattern/detail/PositionSearch.hpp"
#include "support/ASCIIScan.hpp"

namespace kavrin::matchRun {

namespace {

// The position search over the characters of `component`.
template <class Steps>
bool searchCharacters(Steps& steps, const MatchPiece* pieces, const CharacterView& component) {
    std::vector<std::uint32_t> storage;
    return positionSearch::reachesEnd(
        steps, component.size(), [&](const MatchStep& step, std::size_t p) {
            return takeCharacters(step, pieces, component.suffix(p), storage);
        });
}

// matches() for an address that is not a byte per character: each component's steps are read
// and run character by character.
[[gnu::noinline]] bool matchesPatternByCharacters(std::string_view pattern,
                                                  std::string_view address) {
    const auto components = OSCAddressPattern::pathComponents(pattern);
    return matchesByCharacters(address, components.size(),
                               [&](std::size_t i, const CharacterView& component) {
                                   PatternSteps steps(components[i]);
                                   return searchCharacters(steps, nullptr, component);
                               });
}

}  // namespace

std::ptrdiff_t takeCharacters(const MatchStep& step, const MatchPiece* pieces,
                              const CharacterView& rest, std::vector<std::uint32_t>& storage) {
    switch (step.kind) {
        case MatchStep::Kind::text: {
            const CharacterView text = CharacterView::segment(step.text, storage);
            return rest.startsWith(text) ? static_cast<std::ptrdiff_t>(text.size()) : -1;
        }
        case MatchStep::Kind::oneOf:
            return !rest.empty() && oneOfAccepts(step, pieces, rest[0]) ? 1 : -1;
        case MatchStep::Kind::braceList:
        case MatchStep::Kind::strings: {
            // The shortest alternative that is a prefix, as byte-wise (matchBytes::takeBytes).
            std::ptrdiff_t taken = -1;
            std::size_t takenBytes = SIZE_MAX;
            bool any = false;
            const auto consider = [&](std::string_view bytes) {
                any = true;
                const CharacterView alternative = CharacterView::segment(bytes, storage);
                if (bytes.size() < takenBytes && rest.startsWith(alternative)) {
                    taken = static_cast<std::ptrdiff_t>(alternative.size());
                    takenBytes = bytes.size();
                }
            };
            if (step.kind == MatchStep::Kind::strings) {
                for (std::uint32_t i = step.first; i < step.first + step.count; ++i) {
                    consider(pieces[i].text);
                }
            } else {
                componentSyntax::Alternatives each(componentSyntax::PatternBytes(step.text));
                while (const auto alternative = each.next()) consider(alternative->text());
            }
            // Deliberate: "{}" takes nothing and matches.
            return any ? taken : 0;
        }
        case MatchStep::Kind::star:
            break;
    }
    return -1;
}

bool matchesComponent(const MatchStep* first, const MatchStep* last, const MatchPiece* pieces,
                      const CharacterView& component) {
    if (component.isOneBytePerCharacter()) {
        const auto answer =
            matchBytes::matchesComponentBytes(first, last, pieces, component.text());
        if (answer) return *answer;
    }
    positionSearch::ArraySteps steps(first, last);
    return searchCharacters(steps, pieces, component);
}

namespace {

// One step of the walk over literal text at `p`, which opens no wildcard: false where the texts
// differ. As many bytes as both texts have, up to sixteen, up to the first byte that differs or
// may open a wildcard; a block that would run past the end of either is read as the one that
// ends there, which reaches back over bytes already matched. [first, pathEnd) and
// [addressFirst, end) may be read.
[[gnu::always_inline]] inline bool literalStep(const char* first, const char*& p,
                                               const char* pathEnd, const char* addressFirst,
                                               const char*& a, const char* end) {
    const auto both = std::min(pathEnd - p, end - a);
    std::uint32_t same;  // bit i: byte i is matched literal text
    if (both >= 16) {
        same = matchBytes::literalBytes<16>(p, a);
    } else if (p + both - first >= 16 && a + both - addressFirst >= 16) {
        same = matchBytes::literalBytes<16>(p + both - 16, a + both - 16) >> (16 - both);
    } else if (both >= 8) {
        same = matchBytes::literalBytes<8>(p, a);
    } else if (p + both - first >= 8 && a + both - addressFirst >= 8) {
        same = matchBytes::literalBytes<8>(p + both - 8, a + both - 8) >> (8 - both);
    } else {
        same = both != 0 && *a == *p ? 1 : 0;
    }
    const auto taken = std::countr_zero(~same);
    if (taken == 0) return false;  // *p, which opens nothing, differs
    p += taken;
    a += taken;
    return true;
}

// The brace list, or opener of nothing, at `p`: false where it takes nothing of the address
// at `a`; else `p` and `a` move past what it takes.
[[gnu::always_inline]] inline bool braceStep(const char* first, const char*& p, const char* pathEnd,
                                             const char*& a, const char* end) {
    const char* next = nullptr;
    const std::ptrdiff_t taken = matchBytes::braceListTakes(
        first, p + 1, pathEnd, a, static_cast<std::size_t>(end - a), next);
    if (next) {
        if (taken < 0) return false;
        a += taken;
        p = next;
        return true;
    }
    // An opener that opens nothing is text.
    if (a == end || *a != *p) return false;
    ++a;
    ++p;
    return true;
}

[[gnu::noinline]] bool fullWalk(const char* first, const char* p, const char* pathEnd,
                                const char* addressFirst, const char* a, const char* end);

// The brace list at `p`, then the full walk where more follows: the lean walk's, out of line
// for the registers it needs.
[[gnu::noinline]] bool braceThenWalk(const char* first, const char* p, const char* pathEnd,
                                     const char* addressFirst, const char* a, const char* end) {
    if (!braceStep(first, p, pathEnd, a, end)) return false;
    if (p == pathEnd) return a == end;
    return fullWalk(first, p, pathEnd, addressFirst, a, end);
}

// The walk from `p` in the pattern [first, pathEnd) and `a` in the address [addressFirst, end),
// both stripped of their leading and trailing "/" and the address a byte per character. The
// lean walk takes literal text and the common wildcards itself and hands the rest, from where
// it meets it, to the full walk as a tail call: it calls nothing else, so that it saves few
// registers, and the full walk never hands back, so that no stack grows with the pattern.
template <bool lean>
[[gnu::always_inline]] inline bool walk(const char* first, const char* p, const char* pathEnd,
                                        const char* addressFirst, const char* a, const char* end) {
    const auto handOver = [&] { return fullWalk(first, p, pathEnd, addressFirst, a, end); };
    for (;;) {
        if (p == pathEnd) return a == end;
        if (!opensWildcard(*p)) {
            if (!literalStep(first, p, pathEnd, addressFirst, a, end)) return false;
            continue;
        }
        switch (*p) {
            case '*': {
                const char* const stop = matchBytes::findSlash(a, end);
                const char* text = p + 1;
                while (text != pathEnd && *text == '*') ++text;  // a run is one star
                if (text == pathEnd) return stop == end;
                if (*text == '/') {
                    // The "/" after it too, which the address has unless it ended.
                    if (stop == end) return false;
                    p = text + 1;
                    a = stop + 1;
                    continue;
                }
                const char* textEnd = text;
                while (textEnd != pathEnd && *textEnd != '/' && !opensWildcard(*textEnd)) {
                    ++textEnd;
                }
                if (textEnd == pathEnd || *textEnd == '/') {
                    // Only text follows in the component, which must end it.
                    const auto size = static_cast<std::size_t>(textEnd - text);
                    if (static_cast<std::size_t>(stop - a) < size ||
                        !matchBytes::sameBytes(stop - size, text, size)) {
                        return false;
                    }
                    p = textEnd;
                    a = stop;
                    continue;
                }
                if constexpr (lean) return handOver();
                // The star and the rest of its component, as one search up to its end.
                PatternSteps steps({p, static_cast<std::size_t>(pathEnd - p)});
                if (!matchBytes::searchBytes(steps, nullptr, a, stop)) return false;
                p += steps.position();
                a = stop;
                continue;
            }
            case '?':
                if (a == end || *a == '/') return false;
                ++a;
                ++p;
                continue;
            case '[': {
                if (matchBytes::isPlainRange(p, pathEnd)) {
                    if (a == end) return false;
                    const auto byte = static_cast<unsigned char>(*a);
                    if (byte == '/' || byte < static_cast<unsigned char>(p[1]) ||
                        byte > static_cast<unsigned char>(p[3])) {
                        return false;
                    }
                    ++a;
                    p += 5;
                    continue;
                }
                if constexpr (lean) return handOver();
                const auto byte = static_cast<unsigned char>(a != end ? *a : '/');
                const char* next = nullptr;
                const bool takes = matchBytes::bracketTakes(p, pathEnd, byte, next);
                if (next) {
                    if (byte == '/' || !takes) return false;
                    ++a;
                    p = next;
                    continue;
                }
                // Deliberate: an unclosed "[" is read as a "{".
                [[fallthrough]];
            }
            default:
                if constexpr (lean) return braceThenWalk(first, p, pathEnd, addressFirst, a, end);
                if (!braceStep(first, p, pathEnd, a, end)) return false;
        }
    }
}

bool fullWalk(const char* first, const char* p, const char* pathEnd, const char* addressFirst,
              const char* a, const char* end) {
    return walk<false>(first, p, pathEnd, addressFirst, a, end);
}

// The pattern and the address stripped of one leading and then one trailing "/", as
// pathComponents drops them.
struct Stripped {
    const char* p;
    const char* pathEnd;
    const char* a;
    const char* end;

    Stripped(std::string_view pattern, std::string_view address)
        : p(pattern.data()),
          pathEnd(p + pattern.size()),
          a(address.data()),
          end(a + address.size()) {
        if (p != pathEnd && *p == '/') ++p;
        if (p != pathEnd && pathEnd[-1] == '/') --pathEnd;
        if (a != end && *a == '/') ++a;
        if (a != end && end[-1] == '/') --end;
    }
};

// matches() for an address that may not be a byte per character. Up to the first wildcard the
// walk is exact whatever the address holds: the pattern is ASCII, and a "/" that joins the
// character after it in the address is followed there by a byte that no ASCII text has. From a
// wildcard on, the address must be a byte per character; otherwise the whole match is made
// character by character. Out of line: few addresses hold a CR or a byte above 0x7F.
[[gnu::noinline]] bool matchesJoinedAddress(std::string_view pattern, std::string_view address) {
    const Stripped texts(pattern, address);
    if (CharacterView::isOneBytePerCharacter(address)) {
        return fullWalk(pattern.data(), texts.p, texts.pathEnd, address.data(), texts.a, texts.end);
    }
    const char* p = texts.p;
    const char* a = texts.a;
    while (p != texts.pathEnd && !opensWildcard(*p)) {
        if (!literalStep(pattern.data(), p, texts.pathEnd, address.data(), a, texts.end)) {
            return false;
        }
    }
    if (p == texts.pathEnd) return a == texts.end;
    return matchesPatternByCharacters(pattern, address);
}

}  // namespace

// The texts are walked side by side: literal text, the "/" between components included, is
// compared as it stands, and each wildcard is read where the walk meets it and matched where the
// walk has got to in the address. Only a star with more of its component after it needs a
// search, which reads the rest of the component's steps as it goes.
bool matchesPattern(std::string_view pattern, std::string_view address) {
    const Stripped texts(pattern, address);
    // Deliberate: a pattern without components matches nothing, not even "/".
    if (texts.p == texts.pathEnd || texts.a == texts.end) return false;
    // Calls in tail position only, so that the walk saves few registers.
    if (!isASCIIWithoutCR(address)) return matchesJoinedAddress(pattern, address);
    return walk<true>(pattern.data(), texts.p, texts.pathEnd, address.data(), texts.a, texts.end);
}

}  // namespace kavrin::matchRun
