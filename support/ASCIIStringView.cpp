#include "support/ASCIIStringView.hpp"

#include <cstdint>

#include "support/UTF8.hpp"

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
        char32_t scalar = 0;
        if (leadingUTF8Scalar(text.substr(at), scalar) == 0) {
            throw ASCIIError(ASCIIError::Reason::invalidUTF8, bytes[at], at);
        }
        throw ASCIIError(ASCIIError::Reason::nonASCII, scalar, at);
    }
    // Unreachable while the word scans and this loop agree; a disagreement is a bug to see.
    throw std::logic_error("ASCII check found no offending byte");
}

}  // namespace kavrin
