#pragma once

#include <algorithm>
#include <concepts>
#include <utility>

#include "support/InvalidValueError.hpp"

namespace kavrin {

// A value kept within [low, high]: construction and assignment clamp. NaN is refused rather
// than clamped, as it lies nearer to neither bound: it throws InvalidValueError, as a range with
// low above high or a NaN bound does at construction. A refused assignment keeps the old value.
// Distinct objects: safe from any thread. Shared objects: reads only.
template <std::totally_ordered T>
class Clamped {
  public:
    Clamped(T value, T low, T high)
        : low_(checkedLow(std::move(low), high)),
          high_(std::move(high)),
          value_(clamped(std::move(value))) {}

    Clamped& operator=(T value) {
        value_ = clamped(std::move(value));
        return *this;
    }

    const T& value() const { return value_; }
    operator const T&() const { return value_; }
    const T& low() const { return low_; }
    const T& high() const { return high_; }

  private:
    // Only NaN is unequal to itself.
    static bool isNaN(const T& value) { return value != value; }

    static T checkedLow(T low, const T& high) {
        if (isNaN(low) || isNaN(high)) throw InvalidValueError("Clamped bounds must not be NaN");
        if (high < low) {
            throw InvalidValueError("Clamped bounds out of order: low" +
                                    InvalidValueError::shown(low) + " is above high" +
                                    InvalidValueError::shown(high));
        }
        return low;
    }

    T clamped(T value) const {
        if (isNaN(value)) throw InvalidValueError("NaN cannot be clamped");
        return std::clamp(std::move(value), low_, high_);
    }

    T low_;
    T high_;
    T value_;
};

}  // namespace kavrin
