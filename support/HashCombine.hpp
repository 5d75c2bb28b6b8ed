#pragma once

#include <cstddef>

namespace kavrin {

// Mixes `value` into `seed`, for hashes of values made of parts. The odd constant is 2^64
// divided by the golden ratio, so that equal parts in other positions do not cancel out.
constexpr void hashCombine(std::size_t& seed, std::size_t value) noexcept {
    seed ^= value + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2);
}

}  // namespace kavrin
