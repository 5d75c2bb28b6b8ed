#include "support/RadixFormat.hpp"

#include <algorithm>
#include <charconv>
#include <iterator>

namespace kavrin::radixDetail {

namespace {

// The digits without leading zeros ("0" for zero): the top word that is not zero as it is, every
// word below it at its full width.
std::string digitsOf(std::span<const std::uint64_t> words, int radix) {
    const std::size_t perWord = radix == 16 ? 16 : 64;
    std::size_t top = words.size();
    while (top > 1 && words[top - 1] == 0) --top;
    std::string digits;
    for (std::size_t i = top; i-- > 0;) {
        char buffer[64];
        const auto end = std::to_chars(std::begin(buffer), std::end(buffer), words[i], radix).ptr;
        const auto count = static_cast<std::size_t>(end - buffer);
        if (i + 1 < top) digits.append(perWord - count, '0');
        digits.append(buffer, count);
    }
    return digits;
}

}  // namespace

std::string format(std::span<const std::uint64_t> words, int radix, const RadixFormat& style) {
    const auto digits = digitsOf(words, radix);
    std::string padded(std::max(digits.size(), style.minimumDigits) - digits.size(), '0');
    padded += digits;
    if (style.letters == LetterCase::upper) {
        std::transform(padded.begin(), padded.end(), padded.begin(),
                       [](char c) { return c >= 'a' && c <= 'f' ? static_cast<char>(c - 32) : c; });
    }

    std::string text = style.prefix ? (radix == 16 ? "0x" : "0b") : "";
    for (std::size_t i = 0; i < padded.size(); ++i) {
        if (style.group > 0 && i > 0 && (padded.size() - i) % style.group == 0) {
            text += style.separator;
        }
        text += padded[i];
    }
    return text;
}

}  // namespace kavrin::radixDetail
