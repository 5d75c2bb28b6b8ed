#pragma once

#include <stdexcept>
#include <string>

#include <fmt/format.h>

namespace kavrin {

// Raised by Clamped and Validated when a value or a range is refused. what() is an English
// sentence naming the value when {fmt} can write it. Plain value, any thread.
class InvalidValueError : public std::invalid_argument {
  public:
    using std::invalid_argument::invalid_argument;

    // " 42" for a value {fmt} can write, else nothing: the texts name the value when they can.
    template <class T>
    static std::string shown(const T& value) {
        if constexpr (fmt::is_formattable<T>::value) {
            return fmt::format(" {}", value);
        } else {
            return {};
        }
    }
};

}  // namespace kavrin
