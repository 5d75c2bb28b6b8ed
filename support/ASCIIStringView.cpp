#include "support/ASCIIStringView.hpp"

#include <algorithm>
#include <cstdint>

#include <unicode/utf8.h>

namespace kavrin {

void ASCIIStringView::throwFirstOffender(std::string_view text, bool printableOnly) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (bytes[at] < 0x80) {
            if (printableOnly && !isPrintableASCII(bytes[at])) {
                throw ASCIIError(ASCIIError::Reason::nonPrintable, bytes[at], at);
            }
            continue;
        }
        // A UTF-8 sequence is at most four bytes.
        const auto length = static_cast<std::int32_t>(std::min<std::size_t>(text.size() - at, 4));
        std::int32_t next = 0;
        UChar32 scalar;
        U8_NEXT(bytes + at, next, length, scalar);
        if (scalar < 0) throw ASCIIError(ASCIIError::Reason::invalidUTF8, bytes[at], at);
        throw ASCIIError(ASCIIError::Reason::nonASCII, static_cast<char32_t>(scalar), at);
    }
    // Unreachable while the word scans and this loop agree; a disagreement is a bug to see.
    throw std::logic_error("ASCII check found no offending byte");
}

}  // namespace kavrin
