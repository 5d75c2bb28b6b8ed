#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>

#include "support/RadixFormat.hpp"

namespace kavrin {

// Raised by parseHex and parseBinary. what() is a fixed English sentence ending in the byte
// position (from 0) where the text went wrong, e.g. "Bad hexadecimal digit 'g' at position 2"
// or "Value out of range for int8_t at position 3" (the first digit too many). Plain value.
class RadixParseError : public std::invalid_argument {
  public:
    enum class Reason {
        empty,
        noDigits,
        badDigit,
        misplacedSeparator,
        outOfRange,
        negativeUnsigned
    };

    RadixParseError(Reason reason, std::size_t position, const std::string& message);

    Reason reason() const { return reason_; }
    std::size_t position() const { return position_; }

  private:
    Reason reason_;
    std::size_t position_;
};

namespace radixDetail {
// Puts the bits of a `width`-bit integer in `words`, least significant first.
void parse(std::string_view text, int radix, int width, bool isSigned, char separator,
           std::span<std::uint64_t> words);

template <RadixInteger T>
T parsed(std::string_view text, int radix, char separator) {
    using Bits = std::make_unsigned_t<T>;
    std::array<std::uint64_t, wordsOf<T>> words;
    parse(text, radix, std::numeric_limits<Bits>::digits, std::is_signed_v<T>, separator, words);
    Bits bits = 0;
    for (std::size_t i = words.size(); i-- > 0;) {
        if constexpr (std::numeric_limits<Bits>::digits > 64) bits <<= 64;
        bits |= static_cast<Bits>(words[i]);
    }
    return static_cast<T>(bits);
}
}  // namespace radixDetail

// Reads what formatHex writes: an optional '-' (signed types only), an optional "0x" or "0X",
// then hexadecimal digits of either case, `separator` allowed between two digits. Unsigned
// digits are the value's bits at the type's width, so parseHex<std::int8_t>("0xff") is -1, as
// formatHex writes it; after a '-' they are a magnitude, "-0x80" being the least int8_t.
// Nothing else is accepted: no '+', no spaces. Throws RadixParseError. Any thread.
template <RadixInteger T>
T parseHex(std::string_view text, char separator = '_') {
    return radixDetail::parsed<T>(text, 16, separator);
}

// As parseHex, with "0b" or "0B" and the digits 0 and 1.
template <RadixInteger T>
T parseBinary(std::string_view text, char separator = '_') {
    return radixDetail::parsed<T>(text, 2, separator);
}

}  // namespace kavrin
