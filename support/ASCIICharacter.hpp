#pragma once

#include <compare>

#include "support/ASCIIError.hpp"
#include "support/ASCIIScan.hpp"

namespace kavrin {

// One ASCII character, U+0000 to U+007F. Every one is either printable (U+0020 to U+007E) or a
// control (U+0000 to U+001F and U+007F). Plain value, any thread.
class ASCIICharacter {
  public:
    constexpr ASCIICharacter() = default;  // U+0000

    // Throws ASCIIError (nonASCII, no position) above U+007F.
    constexpr explicit ASCIICharacter(char32_t scalar) : value_(checked(scalar)) {}
    // The byte read as unsigned: '\xE9' is refused as U+00E9.
    constexpr explicit ASCIICharacter(char byte)
        : ASCIICharacter(char32_t{static_cast<unsigned char>(byte)}) {}

    constexpr char value() const { return value_; }
    constexpr bool isPrintable() const { return isPrintableASCII(char32_t{scalar()}); }
    constexpr bool isControl() const { return !isPrintable(); }

    friend constexpr auto operator<=>(ASCIICharacter, ASCIICharacter) = default;

  private:
    constexpr unsigned char scalar() const { return static_cast<unsigned char>(value_); }

    static constexpr char checked(char32_t scalar) {
        if (scalar > 0x7F) throw ASCIIError(ASCIIError::Reason::nonASCII, scalar, std::nullopt);
        return static_cast<char>(scalar);
    }

    char value_ = 0;
};

}  // namespace kavrin
