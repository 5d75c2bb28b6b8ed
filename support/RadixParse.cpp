#include "support/RadixParse.hpp"

#include <bit>

#include <fmt/format.h>

#include "support/ASCIIScan.hpp"

namespace kavrin {

RadixParseError::RadixParseError(Reason reason, std::size_t position, const std::string& message)
    : std::invalid_argument(fmt::format("{} at position {}", message, position)),
      reason_(reason),
      position_(position) {}

namespace radixDetail {

namespace {

// The digit's value in `radix`, or -1.
int digitValue(char c, int radix) {
    int value = -1;
    if (c >= '0' && c <= '9') value = c - '0';
    if (c >= 'a' && c <= 'f') value = c - 'a' + 10;
    if (c >= 'A' && c <= 'F') value = c - 'A' + 10;
    return value < radix ? value : -1;
}

// An unsigned integer of up to 128 bits.
struct Wide {
    std::uint64_t low = 0;
    std::uint64_t high = 0;

    bool isZero() const { return (low | high) == 0; }
    int bitCount() const { return std::popcount(low) + std::popcount(high); }
    // `shift` is 1 or 4; the bits shifted out at the top are gone.
    void shiftIn(int shift, std::uint64_t digit) {
        high = high << shift | low >> (64 - shift);
        low = low << shift | digit;
    }
    // Two's complement.
    void negate() {
        high = ~high + (low == 0 ? 1 : 0);
        low = 0 - low;
    }
};

// A character as the error shows it: quoted when printable, else its byte value.
std::string shown(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return isPrintableASCII(byte) ? fmt::format("'{}'", c) : fmt::format("0x{:02X}", byte);
}

}  // namespace

void parse(std::string_view text, int radix, int width, bool isSigned, char separator,
           std::span<std::uint64_t> words) {
    using Reason = RadixParseError::Reason;
    const auto typeName = [&] { return fmt::format("{}int{}_t", isSigned ? "" : "u", width); };
    if (text.empty()) throw RadixParseError(Reason::empty, 0, "Empty text");

    std::size_t at = 0;
    const bool negative = text[0] == '-';
    if (negative) {
        if (!isSigned) {
            throw RadixParseError(Reason::negativeUnsigned, 0, "Negative value for " + typeName());
        }
        ++at;
    }
    const char prefix = radix == 16 ? 'x' : 'b';
    if (text.size() - at >= 2 && text[at] == '0' && (text[at + 1] | 0x20) == prefix) at += 2;
    if (at == text.size()) throw RadixParseError(Reason::noDigits, at, "No digits");

    // Bits fill the whole width; a magnitude may reach the least value's, 2^(width - 1), the one
    // of `width` bits with no other bit set. Digits of a power of two just shift in, so the
    // significant bits are counted rather than the value compared.
    const int shift = radix == 16 ? 4 : 1;
    Wide value;
    int significant = 0;
    for (const std::size_t first = at; at < text.size(); ++at) {
        const char c = text[at];
        if (c == separator) {
            const bool betweenDigits = at > first && at + 1 < text.size() &&
                                       digitValue(text[at - 1], radix) >= 0 &&
                                       digitValue(text[at + 1], radix) >= 0;
            if (!betweenDigits) {
                throw RadixParseError(Reason::misplacedSeparator, at,
                                      "Misplaced separator " + shown(c));
            }
            continue;
        }
        const int digit = digitValue(c, radix);
        if (digit < 0) {
            throw RadixParseError(
                Reason::badDigit, at,
                fmt::format("Bad {} digit {}", radix == 16 ? "hexadecimal" : "binary", shown(c)));
        }
        const auto d = static_cast<std::uint64_t>(digit);
        if (!value.isZero()) {
            significant += shift;
        } else {
            significant = std::bit_width(d);
        }
        value.shiftIn(shift, d);
        const bool fits =
            significant < width || (significant == width && (!negative || value.bitCount() == 1));
        if (!fits) {
            throw RadixParseError(Reason::outOfRange, at, "Value out of range for " + typeName());
        }
    }
    if (negative) value.negate();
    words[0] = value.low;
    if (words.size() > 1) words[1] = value.high;
}

}  // namespace radixDetail

}  // namespace kavrin
