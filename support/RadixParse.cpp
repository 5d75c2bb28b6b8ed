#include "support/RadixParse.hpp"

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

// A character as the error shows it: quoted when printable, else its byte value.
std::string shown(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return isPrintableASCII(byte) ? fmt::format("'{}'", c) : fmt::format("0x{:02X}", byte);
}

}  // namespace

std::uint64_t parse(std::string_view text, int radix, int width, bool isSigned, char separator) {
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

    // A magnitude may reach the least value's; bits fill the whole width.
    const int shift = radix == 16 ? 4 : 1;
    const std::uint64_t limit = negative
                                    ? std::uint64_t{1} << (width - 1)
                                    : std::numeric_limits<std::uint64_t>::max() >> (64 - width);
    std::uint64_t value = 0;
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
        if (value > (limit - d) >> shift) {
            throw RadixParseError(Reason::outOfRange, at, "Value out of range for " + typeName());
        }
        value = value << shift | d;
    }
    return negative ? 0 - value : value;
}

}  // namespace radixDetail

}  // namespace kavrin
