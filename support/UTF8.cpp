#include "support/UTF8.hpp"

#include <algorithm>
#include <cstdint>

#include <unicode/utf8.h>

#include "support/ASCIIScan.hpp"

namespace kavrin {

std::size_t leadingUTF8Scalar(std::string_view text, char32_t& scalar) {
    if (text.empty()) return 0;
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    // A sequence is at most four bytes.
    const auto length = static_cast<std::int32_t>(std::min<std::size_t>(text.size(), 4));
    std::int32_t next = 0;
    UChar32 found;
    U8_NEXT(bytes, next, length, found);
    if (found < 0) return 0;
    scalar = static_cast<char32_t>(found);
    return static_cast<std::size_t>(next);
}

bool isValidUTF8(std::string_view text) {
    if (isASCII(text)) return true;
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    const auto length = static_cast<std::int64_t>(text.size());
    for (std::int64_t at = 0; at < length;) {
        UChar32 scalar;
        U8_NEXT(bytes, at, length, scalar);
        if (scalar < 0) return false;
    }
    return true;
}

}  // namespace kavrin
