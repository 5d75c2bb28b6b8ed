#pragma once

#include <cstddef>
#include <optional>
#include <stdexcept>

namespace kavrin {

// Raised when text or a character that must be ASCII (or printable ASCII) is not. what() is a
// fixed English sentence naming the first offender, e.g. "Non-ASCII character U+00E9 at
// position 3". Positions count bytes from 0 and point at the first byte of the offender; a
// multi-byte UTF-8 character is named by its scalar value, a byte that starts no valid UTF-8
// sequence by its value ("Invalid UTF-8 byte 0xFF at position 3"). A lone character has no
// position. Plain value, any thread.
class ASCIIError : public std::invalid_argument {
  public:
    enum class Reason { nonASCII, nonPrintable, invalidUTF8 };

    ASCIIError(Reason reason, char32_t value, std::optional<std::size_t> position);

    Reason reason() const { return reason_; }
    // The offending scalar value, or the byte for invalidUTF8.
    char32_t value() const { return value_; }
    std::optional<std::size_t> position() const { return position_; }

  private:
    Reason reason_;
    char32_t value_;
    std::optional<std::size_t> position_;
};

}  // namespace kavrin
