#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

#include "osc/codec/detail/OSCPadding.hpp"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

// The search under every string chunk of the wire format: where the first zero byte is, and
// whether any byte before it has its high bit set. Addresses and strings are short, so a
// library search's set-up costs more than it saves; sixteen bytes a step where the buffer
// allows, eight, then one. Never reads outside [data, data + size). Internal to the codec.
namespace kavrin::zeroByteScan {

struct Result {
    std::int64_t zero = -1;  // the first zero byte's index; -1 when there is none
    bool highBitBeforeZero = false;
};

inline Result scan(const std::uint8_t* data, std::int64_t size) {
    std::int64_t at = 0;
#if defined(__SSE2__)
    unsigned highs = 0;
    for (; at + 16 <= size; at += 16) {
        const auto block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + at));
        const auto zeros =
            static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(block, _mm_setzero_si128())));
        const auto high = static_cast<unsigned>(_mm_movemask_epi8(block));
        if (zeros == 0) {
            highs |= high;
            continue;
        }
        const auto zero = std::countr_zero(zeros);
        highs |= high & ((1u << zero) - 1);
        return {at + zero, highs != 0};
    }
    std::uint64_t bits = highs != 0 ? 0x80 : 0;
#else
    std::uint64_t bits = 0;  // every byte before the zero ORed in
#endif
    for (; at + 8 <= size; at += 8) {
        std::uint64_t word;
        std::memcpy(&word, data + at, 8);
        // Nonzero exactly when the word holds a zero byte; on a little-endian machine its lowest
        // set bit marks the first one.
        const auto zeros = (word - 0x0101010101010101ULL) & ~word & 0x8080808080808080ULL;
        if (zeros == 0) {
            bits |= word;
            continue;
        }
        if constexpr (std::endian::native == std::endian::little) {
            const auto zero = std::countr_zero(zeros) / 8;
            bits |= word & ((std::uint64_t{1} << (8 * zero)) - 1);
            return {at + zero, (bits & 0x8080808080808080ULL) != 0};
        }
        break;
    }
    for (; at < size; ++at) {
        if (data[at] == 0) return {at, (bits & 0x8080808080808080ULL) != 0};
        bits |= data[at];
    }
    return {-1, (bits & 0x8080808080808080ULL) != 0};
}

constexpr std::int64_t chunkLength(std::int64_t textLength) {
    return static_cast<std::int64_t>(padding::nullTerminatedSize(static_cast<std::size_t>(textLength)));
}

// A string chunk: ASCII text, a zero, zeros to the end of its word.
struct Chunk {
    std::int64_t textLength = 0;
    std::int64_t length = -1;  // the whole chunk's; -1 when the bytes do not begin with one
};

// The string chunk the `size` bytes at `data` begin with. When they do not begin with a whole
// valid one, the caller reads them again through PassiveDataReader for the error's text.
inline Chunk asciiChunk(const std::uint8_t* data, std::int64_t size) {
    const auto found = scan(data, size);
    if (found.zero < 0 || found.highBitBeforeZero) return {};
    const auto length = chunkLength(found.zero);
    if (length > size) return {};
    // The zero and the padding after it end the chunk's last word: in memory order, that word
    // shifted past the bytes before the zero is zero.
    std::uint32_t last;
    std::memcpy(&last, data + length - 4, 4);
    if constexpr (std::endian::native == std::endian::big) last = __builtin_bswap32(last);
    if ((last >> (8 * (found.zero & 3))) != 0) return {};
    return {found.zero, length};
}

}  // namespace kavrin::zeroByteScan
