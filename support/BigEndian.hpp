#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

// Big-endian loads and stores for the wire format (every OSC number is big-endian).
namespace kavrin::bigEndian {

inline std::uint32_t load32(const std::uint8_t* bytes) {
    std::uint32_t value;
    std::memcpy(&value, bytes, 4);
    if constexpr (std::endian::native == std::endian::little) value = __builtin_bswap32(value);
    return value;
}

inline std::uint64_t load64(const std::uint8_t* bytes) {
    std::uint64_t value;
    std::memcpy(&value, bytes, 8);
    if constexpr (std::endian::native == std::endian::little) value = __builtin_bswap64(value);
    return value;
}

inline void store32(std::uint8_t* bytes, std::uint32_t value) {
    if constexpr (std::endian::native == std::endian::little) value = __builtin_bswap32(value);
    std::memcpy(bytes, &value, 4);
}

inline void store64(std::uint8_t* bytes, std::uint64_t value) {
    if constexpr (std::endian::native == std::endian::little) value = __builtin_bswap64(value);
    std::memcpy(bytes, &value, 8);
}

}  // namespace kavrin::bigEndian
