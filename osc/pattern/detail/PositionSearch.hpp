#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace kavrin::positionSearch {

// Internal to the pattern layer: the one search behind every byte-wise matcher of a component
// with stars. Whether some choice of lengths for the stars lets every step match in turn up to
// the component's end: every step but "*" has one way of matching at a given position, so
// instead of backtracking the search carries the set of positions the steps read so far can end
// at, step by step. The answers of a backtracking search, in time linear in the steps times the
// component, however many stars there are.

// Positions 0 to 63 in one word: components shorter than 64 bytes, nearly all of them.
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

template <class Positions, class Steps>
bool reachesEndWith(Steps& steps, std::size_t start, std::size_t last) {
    Positions at(last);
    Positions next(last);
    at.set(start);
    for (; !steps.done() && !at.empty(); steps.advance()) {
        if (steps.isStar()) {
            at.fillFromLowest(last);
            continue;
        }
        next.clear();
        at.forEach([&](std::size_t p) {
            const std::ptrdiff_t n = steps.take(p);
            if (n >= 0) next.set(p + static_cast<std::size_t>(n));
        });
        std::swap(at, next);
    }
    return at.test(last);
}

// Whether `steps`, from position `start`, can end exactly at `length`, the component's end.
// Steps offers done(), advance(), isStar() and take(p): the bytes the current step takes at p
// (never past the component's end), or -1.
template <class Steps>
bool reachesEnd(Steps steps, std::size_t start, std::size_t length) {
    return length < 64 ? reachesEndWith<SmallPositions>(steps, start, length)
                       : reachesEndWith<LargePositions>(steps, start, length);
}

}  // namespace kavrin::positionSearch
