#pragma once

#include <functional>
#include <string>
#include <utility>

#include "support/InvalidValueError.hpp"

namespace kavrin {

// A value that a predicate accepts. A value it refuses throws InvalidValueError, whose text
// names the value and the requirement: "Invalid value 70000: expected a port from 1 to 65535".
// A refused assignment keeps the old value. Distinct objects: safe from any thread. Shared
// objects: reads only (the predicate is called on the assigning thread).
template <class T>
class Validated {
  public:
    using Predicate = std::function<bool(const T&)>;

    // `requirement` completes "expected ...", e.g. "a port from 1 to 65535".
    Validated(T value, Predicate accepts, std::string requirement)
        : accepts_(std::move(accepts)),
          requirement_(std::move(requirement)),
          value_(checked(std::move(value))) {}

    Validated& operator=(T value) {
        value_ = checked(std::move(value));
        return *this;
    }

    // Whether an assignment of `value` would succeed.
    bool accepts(const T& value) const { return accepts_(value); }

    const T& value() const { return value_; }
    operator const T&() const { return value_; }
    const std::string& requirement() const { return requirement_; }

  private:
    T checked(T value) const {
        if (!accepts_(value)) {
            throw InvalidValueError("Invalid value" + InvalidValueError::shown(value) +
                                    ": expected " + requirement_);
        }
        return value;
    }

    Predicate accepts_;
    std::string requirement_;
    T value_;
};

}  // namespace kavrin
