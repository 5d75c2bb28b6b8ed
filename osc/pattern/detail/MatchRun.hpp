#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "osc/pattern/CharacterView.hpp"
#include "osc/pattern/OSCAddressPattern.hpp"
#include "osc/pattern/detail/MatchStep.hpp"

// Internal to the pattern layer: running match steps over a component or a whole address,
// byte by byte (MatchBytes.hpp) where every byte is a character, else character by character.
// Plain functions: any thread.
namespace kavrin::matchRun {

// What one step other than a star takes at the start of `rest`, in characters, or -1. A brace
// list takes its shortest alternative that is a prefix, which in a set's lexicographic order is
// also the first. `storage` holds the boundaries of the step's own text while it is judged.
std::ptrdiff_t takeCharacters(const MatchStep& step, const MatchPiece* pieces,
                              const CharacterView& rest, std::vector<std::uint32_t>& storage);

// Whether the steps of one component take exactly `component`: byte by byte where every byte
// is a character and none a "/", else character by character.
bool matchesComponent(const MatchStep* first, const MatchStep* last, const MatchPiece* pieces,
                      const CharacterView& component);

// OSCAddressPattern::matches: reads the pattern's steps as the walk meets them, on the stack.
bool matchesPattern(std::string_view pattern, std::string_view address);

// `address` split into characters and then components, each given to
// `matchesComponent(index, component)`, for a pattern of `count` components.
template <class F>
bool matchesByCharacters(std::string_view address, std::size_t count, F matchesComponent) {
    // Deliberate: a pattern without components matches nothing, not even "/".
    if (count == 0) return false;
    std::vector<std::uint32_t> storage;
    const auto parts = OSCAddressPattern::pathComponents(CharacterView::segment(address, storage));
    // A wildcard never spans a "/": the component counts must agree.
    if (parts.size() != count) return false;
    for (std::size_t i = 0; i < count; ++i) {
        if (!matchesComponent(i, parts[i])) return false;
    }
    return true;
}

}  // namespace kavrin::matchRun
