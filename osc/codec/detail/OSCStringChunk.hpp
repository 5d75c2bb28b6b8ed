#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

#include "osc/codec/OSCPadding.hpp"
#include "support/ASCIIScan.hpp"

// Internal to the codec: the string chunks of the wire format (addresses, tag strings, s and S
// arguments) found with one zero-byte scan. Never reads outside [data, data + size).
namespace kavrin::stringChunk {

// The bytes of a chunk whose text is `textLength` bytes.
constexpr std::int64_t size(std::int64_t textLength) {
    return static_cast<std::int64_t>(
        padding::nullTerminatedSize(static_cast<std::size_t>(textLength)));
}

// A string chunk: ASCII text, a zero, zeros to the end of its word.
struct Chunk {
    std::int64_t textLength = 0;
    std::int64_t length = -1;  // the whole chunk's; -1 when the bytes do not begin with one
};

// The string chunk the `size` bytes at `data` begin with. When they do not begin with a whole
// valid one, the caller reads them again through PassiveDataReader for the error's text.
inline Chunk ascii(const std::uint8_t* data, std::int64_t available) {
    const auto found = scanZeroByte(data, available);
    if (found.zero < 0 || found.highBitBeforeZero) return {};
    const auto length = size(found.zero);
    if (length > available) return {};
    // The zero and the padding after it end the chunk's last word: in memory order, that word
    // shifted past the bytes before the zero is zero.
    std::uint32_t last;
    std::memcpy(&last, data + length - 4, 4);
    if constexpr (std::endian::native == std::endian::big) last = __builtin_bswap32(last);
    if ((last >> (8 * (found.zero & 3))) != 0) return {};
    return {found.zero, length};
}

}  // namespace kavrin::stringChunk
