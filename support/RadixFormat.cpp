#include "support/RadixFormat.hpp"

#include <algorithm>
#include <charconv>
#include <iterator>

namespace kavrin::radixDetail {

std::string format(std::uint64_t bits, int radix, const RadixFormat& style) {
    char digits[64];
    const auto end = std::to_chars(std::begin(digits), std::end(digits), bits, radix).ptr;
    const auto count = static_cast<std::size_t>(end - digits);
    std::string padded(std::max(count, style.minimumDigits) - count, '0');
    padded.append(digits, count);
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
