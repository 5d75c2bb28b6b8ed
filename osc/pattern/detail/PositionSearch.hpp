#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "osc/pattern/detail/MatchStep.hpp"

// Internal to the pattern layer: the one search over a component's steps, byte-wise and
// character-wise. Whether some choice of lengths for the stars lets the steps match in turn
// from position 0 up to the component's end: every step but a star has one way of matching at
// a position, so instead of backtracking the search carries the set of positions the steps so
// far can end at. The backtracking search's answer, in time linear in the steps times the
// component, however many stars there are.
namespace kavrin::positionSearch {

// Positions 0 to 63 in one word: components shorter than 64 characters, nearly all of them.
class SmallPositions {
  public:
    explicit SmallPositions(std::size_t) {}
    bool empty() const { return bits_ == 0; }
    bool test(std::size_t p) const { return (bits_ >> p & 1) != 0; }
    void set(std::size_t p) { bits_ |= std::uint64_t{1} << p; }
    void clear() { bits_ = 0; }
    // Every position from the lowest one set up to `last`.
    void fillFromLowest(std::size_t last) {
        const auto upToLast = last == 63 ? ~std::uint64_t{0} : (std::uint64_t{1} << (last + 1)) - 1;
        bits_ = upToLast & ~((bits_ & (~bits_ + 1)) - 1);
    }
    template <class F>
    void forEach(F f) const {
        for (auto bits = bits_; bits != 0; bits &= bits - 1) {
            f(static_cast<std::size_t>(std::countr_zero(bits)));
        }
    }

  private:
    std::uint64_t bits_ = 0;
};

// Any number of positions, for long components.
class LargePositions {
  public:
    explicit LargePositions(std::size_t last) : words_(last / 64 + 1) {}
    bool empty() const {
        return std::all_of(words_.begin(), words_.end(), [](auto word) { return word == 0; });
    }
    bool test(std::size_t p) const { return (words_[p / 64] >> (p % 64) & 1) != 0; }
    void set(std::size_t p) { words_[p / 64] |= std::uint64_t{1} << (p % 64); }
    void clear() { std::fill(words_.begin(), words_.end(), 0); }
    void fillFromLowest(std::size_t last) {
        std::size_t lowest = 0;
        while (!test(lowest)) ++lowest;
        for (std::size_t p = lowest; p <= last; ++p) set(p);
    }
    template <class F>
    void forEach(F f) const {
        for (std::size_t w = 0; w < words_.size(); ++w) {
            for (auto bits = words_[w]; bits != 0; bits &= bits - 1) {
                f(w * 64 + static_cast<std::size_t>(std::countr_zero(bits)));
            }
        }
    }

  private:
    std::vector<std::uint64_t> words_;
};

// A program's steps as the search reads them; PatternSteps reads them from a pattern's text.
class ArraySteps {
  public:
    ArraySteps(const MatchStep* first, const MatchStep* last) : at_(first), last_(last) {}
    const MatchStep* next() { return at_ == last_ ? nullptr : at_++; }

  private:
    const MatchStep* at_;
    const MatchStep* last_;
};

template <class Positions, class Steps, class Take>
bool reachesEndWith(Steps& steps, std::size_t length, Take take) {
    Positions at(length);
    Positions next(length);
    at.set(0);
    while (const MatchStep* step = steps.next()) {
        if (step->kind == MatchStep::Kind::star) {
            at.fillFromLowest(length);
            continue;
        }
        next.clear();
        at.forEach([&](std::size_t p) {
            const std::ptrdiff_t taken = take(*step, p);
            if (taken >= 0) next.set(p + static_cast<std::size_t>(taken));
        });
        std::swap(at, next);
        if (at.empty()) return false;
    }
    return at.test(length);
}

// Whether the steps that `steps.next()` gives, read once each, can end exactly at `length`.
// `take(step, p)`: what a step other than a star takes at p (never past `length`), or -1.
template <class Steps, class Take>
bool reachesEnd(Steps& steps, std::size_t length, Take take) {
    return length < 64 ? reachesEndWith<SmallPositions>(steps, length, take)
                       : reachesEndWith<LargePositions>(steps, length, take);
}

}  // namespace kavrin::positionSearch
