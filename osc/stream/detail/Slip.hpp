#pragma once

#include <cstdint>

// Internal to the stream layer: the special bytes of SLIP (RFC 1055).
namespace kavrin::slip {

inline constexpr std::uint8_t end = 0xC0;
inline constexpr std::uint8_t escape = 0xDB;
inline constexpr std::uint8_t escapedEnd = 0xDC;     // after escape: an END in the data
inline constexpr std::uint8_t escapedEscape = 0xDD;  // after escape: an ESC in the data

}  // namespace kavrin::slip
