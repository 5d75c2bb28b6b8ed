#include "support/RadixFormat.hpp"

#include <algorithm>
#include <charconv>

namespace kavrin::radixDetail {

std::string format(std::uint64_t bits, int radix, const RadixFormat& format) {
    char digits[64];
    const auto end = std::to_chars(std::begin(digits), std::end(digits), bits, radix).ptr;
    const auto count = static_cast<std::size_t>(end - digits);
    std::string padded(std::max(count, format.minimumDigits) - count, '0');
    padded.append(digits, count);
    if (format.letters == LetterCase::upper) {
        std::transform(padded.begin(), padded.end(), padded.begin(),
                       [](char c) { return c >= 'a' && c <= 'f' ? static_cast<char>(c - 32) : c; });
    }

    std::string text = format.prefix ? (radix == 16 ? "0x" : "0b") : "";
    for (std::size_t i = 0; i < padded.size(); ++i) {
        if (format.group > 0 && i > 0 && (padded.size() - i) % format.group == 0) {
            text += format.separator;
        }
        text += padded[i];
    }
    return text;
}

}  // namespace kavrin::radixDetail
