#include "osc/pattern/detail/MatchRun.hpp"

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

// The texts are walked side by side: literal text, the "/" between components included, is
// compared as it stands, and each wildcard is read where the walk meets it and matched where the
// walk has got to in the address. Only a star with more of its component after it needs a
// search, which reads the rest of the component's steps as it goes. Up to the first wildcard this
// is exact whatever the address holds: the pattern is ASCII, and a "/" that joins the character
// after it in the address is followed there by a byte that no ASCII text has. From a wildcard on
// the address must be a byte per character; otherwise the whole match is made character by
// character.
bool matchesPattern(std::string_view pattern, std::string_view address) {
    const char* p = pattern.data();
    const char* pathEnd = p + pattern.size();
    const char* a = address.data();
    const char* end = a + address.size();
    // One leading and then one trailing "/" go, as pathComponents drops them.
    if (p != pathEnd && *p == '/') ++p;
    if (p != pathEnd && pathEnd[-1] == '/') --pathEnd;
    if (a != end && *a == '/') ++a;
    if (a != end && end[-1] == '/') --end;
    // Deliberate: a pattern without components matches nothing, not even "/".
    if (p == pathEnd || a == end) return false;
    bool checked = false;
    for (;;) {
        if (p == pathEnd) return a == end;
        if (!opensWildcard(*p)) {
            // Literal text: eight bytes at a time while both texts have them, up to the first
            // byte that differs or may open a wildcard.
            if (pathEnd - p >= 8 && end - a >= 8) {
                const auto word = loadWord<std::uint64_t>(p);
                // The lowest bit set in the differences is in the first byte that differs.
                const auto stops =
                    matchBytes::firstEqual(word, '*') | matchBytes::firstEqual(word, '?') |
                    matchBytes::firstEqual(word | asciiScanDetail::ones * 0x20, '{') |
                    (word ^ loadWord<std::uint64_t>(a));
                const auto same = stops == 0 ? 8 : std::countr_zero(stops) / 8;
                if (same == 0) return false;  // *p, which opens nothing, differs
                p += same;
                a += same;
                continue;
            }
            if (a == end || *a != *p) return false;
            ++p;
            ++a;
            // The pattern's last few bytes, as one word that ends with them, less its bytes
            // before p. A borrow out of those may mark a byte that does not stop, which then
            // stands as it is.
            const auto left = pathEnd - p;
            if (left > 0 && left < 8 && pathEnd - pattern.data() >= 8 &&
                a - address.data() >= 8 - left && end - a >= left) {
                const auto word = loadWord<std::uint64_t>(pathEnd - 8);
                const auto stops =
                    (matchBytes::firstEqual(word, '*') | matchBytes::firstEqual(word, '?') |
                     matchBytes::firstEqual(word | asciiScanDetail::ones * 0x20, '{') |
                     (word ^ loadWord<std::uint64_t>(a + left - 8))) >>
                    (8 * (8 - left));
                const auto same = stops == 0 ? left : std::countr_zero(stops) / 8;
                if (same != left && !opensWildcard(p[same]) && p[same] != a[same]) return false;
                p += same;
                a += same;
            }
            continue;
        }
        if (!checked) {
            if (!CharacterView::isOneBytePerCharacter(address)) {
                return matchesPatternByCharacters(pattern, address);
            }
            checked = true;
        }
        switch (*p) {
            case '*': {
                const char* const stop = matchBytes::findSlash(a, end);
                const char* text = p + 1;
                while (text != pathEnd && *text == '*') ++text;  // a run is one star
                if (text == pathEnd || *text == '/') {
                    p = text;
                    a = stop;
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
                } else {
                    // The star and the rest of its component, as one search up to its end.
                    PatternSteps steps({p, static_cast<std::size_t>(pathEnd - p)});
                    if (!matchBytes::searchBytes(steps, nullptr, a, stop)) return false;
                    p += steps.position();
                }
                a = stop;
                continue;
            }
            case '?':
                if (a == end || *a == '/') return false;
                ++a;
                ++p;
                continue;
            case '[': {
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
            default: {
                const char* next = nullptr;
                const std::ptrdiff_t taken = matchBytes::braceListTakes(
                    pattern.data(), p + 1, pathEnd, a, static_cast<std::size_t>(end - a), next);
                if (next) {
                    if (taken < 0) return false;
                    a += taken;
                    p = next;
                    continue;
                }
                // An opener that opens nothing is text.
                if (a == end || *a != *p) return false;
                ++a;
                ++p;
            }
        }
    }
}

}  // namespace kavrin::matchRun
