#pragma once

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <string>
#include <type_traits>

namespace kavrin {

// The integers written and read in hexadecimal and binary: every width and signedness, not bool.
// In GNU mode (-std=gnu++20, CMake's default) the standard library counts __int128 and
// unsigned __int128 as integral, and they are written and read at their full width too.
template <class T>
concept RadixInteger = std::integral<T> && !std::same_as<std::remove_cv_t<T>, bool>;

enum class LetterCase { lower, upper };

// How formatHex and formatBinary write a number. The defaults give "0x2a" and "0b101010";
// {.minimumDigits = 8, .group = 4} gives "0x0000_002a".
struct RadixFormat {
    std::size_t minimumDigits = 1;  // zeros pad on the left up to this many digits
    bool prefix = true;             // "0x" or "0b", always lower case
    LetterCase letters = LetterCase::lower;
    std::size_t group = 0;  // digits between separators, counted from the right; 0 for none
    char separator = '_';
};

namespace radixDetail {
// The 64-bit words that hold a value of T: one, or two for a 128-bit integer.
template <RadixInteger T>
constexpr std::size_t wordsOf = (std::numeric_limits<std::make_unsigned_t<T>>::digits + 63) / 64;

// The words least significant first.
std::string format(std::span<const std::uint64_t> words, int radix, const RadixFormat& style);

// The value's bits at its own width, a negative number in two's complement, in words.
template <RadixInteger T>
std::array<std::uint64_t, wordsOf<T>> bitsOf(T value) {
    static_assert(wordsOf<T> <= 2, "integers wider than 128 bits are not supported");
    auto bits = static_cast<std::make_unsigned_t<T>>(value);
    std::array<std::uint64_t, wordsOf<T>> words{};
    for (auto& word : words) {
        word = static_cast<std::uint64_t>(bits);
        if constexpr (std::numeric_limits<decltype(bits)>::digits > 64) bits >>= 64;
    }
    return words;
}
}  // namespace radixDetail

// A negative value is written as its two's complement at its type's width:
// formatHex(std::int8_t{-1}) is "0xff", formatHex(-1) is "0xffffffff". Any thread.
template <RadixInteger T>
std::string formatHex(T value, const RadixFormat& format = {}) {
    return radixDetail::format(radixDetail::bitsOf(value), 16, format);
}

template <RadixInteger T>
std::string formatBinary(T value, const RadixFormat& format = {}) {
    return radixDetail::format(radixDetail::bitsOf(value), 2, format);
}

}  // namespace kavrin
