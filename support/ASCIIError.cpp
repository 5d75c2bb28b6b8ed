#include "support/ASCIIError.hpp"

#include <string>

#include <fmt/format.h>

namespace kavrin {

namespace {

std::string describe(ASCIIError::Reason reason, char32_t value,
                     std::optional<std::size_t> position) {
    const auto scalar = static_cast<std::uint32_t>(value);
    std::string text;
    switch (reason) {
        case ASCIIError::Reason::nonASCII:
            text = fmt::format("Non-ASCII character U+{:04X}", scalar);
            break;
        case ASCIIError::Reason::nonPrintable:
            text = fmt::format("Non-printable character U+{:04X}", scalar);
            break;
        case ASCIIError::Reason::invalidUTF8:
            text = fmt::format("Invalid UTF-8 byte 0x{:02X}", scalar);
            break;
    }
    if (position) text += fmt::format(" at position {}", *position);
    return text;
}

}  // namespace

ASCIIError::ASCIIError(Reason reason, char32_t value, std::optional<std::size_t> position)
    : std::invalid_argument(describe(reason, value, position)),
      reason_(reason),
      value_(value),
      position_(position) {}

}  // namespace kavrin
