#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

// Byte scans a word at a time, for the hot paths that look at every address and string. The
// texts are short, so a library search's set-up costs more than it saves. None of them reads
// outside the bytes it is given. Plain functions: any thread.
namespace kavrin {

namespace asciiScanDetail {

constexpr std::uint64_t ones = 0x0101010101010101ULL;
constexpr std::uint64_t highBits = 0x8080808080808080ULL;

template <class Word>
[[gnu::always_inline]] inline Word load(const char* at) {
    Word word;
    std::memcpy(&word, at, sizeof word);
    return word;
}

// Whether `flags` sets the high bit of any byte of `text`. `flags` maps a 32- or 64-bit word to
// one whose byte high bits mark the offenders; it must flag nothing in a word of 'A's. Whole
// words, the last one overlapping the one before; shorter texts as two overlapping half words
// or one word built from their first, middle and last bytes, so a short text costs no loop.
template <class Flags>
[[gnu::always_inline]] inline bool anyByteFlagged(std::string_view text, Flags flags) {
    const char* const data = text.data();
    const std::size_t size = text.size();
    if (size >= 8) {
        std::uint64_t found = 0;
        for (std::size_t i = 0; i + 8 < size; i += 8) found |= flags(load<std::uint64_t>(data + i));
        found |= flags(load<std::uint64_t>(data + size - 8));
        return (found & highBits) != 0;
    }
    std::uint32_t word;
    if (size >= 4) {
        word = flags(load<std::uint32_t>(data)) | flags(load<std::uint32_t>(data + size - 4));
    } else if (size > 0) {
        const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(data[i]); };
        word = flags(std::uint32_t{byte(0)} | std::uint32_t{byte(size / 2)} << 8 |
                     std::uint32_t{byte(size - 1)} << 16 | std::uint32_t{'A'} << 24);
    } else {
        return false;
    }
    return (word & static_cast<std::uint32_t>(highBits)) != 0;
}

template <class Word>
constexpr Word repeated(unsigned char byte) {
    return static_cast<Word>(ones * byte);
}

}  // namespace asciiScanDetail

// The word of `sizeof(Word)` bytes at `at`, in memory order, whatever its alignment.
template <class Word>
[[gnu::always_inline]] inline Word loadWord(const char* at) {
    return asciiScanDetail::load<Word>(at);
}

// The high bit of each byte of `word` that equals `byte`, and of no other byte: unlike the
// quicker borrow trick, a match never marks the byte above it too, so any bit may be used.
[[gnu::always_inline]] inline std::uint64_t bytesEqual(std::uint64_t word, unsigned char byte) {
    constexpr std::uint64_t low7 = 0x7F7F7F7F7F7F7F7FULL;
    const std::uint64_t x = word ^ (asciiScanDetail::ones * byte);
    return ~(((x & low7) + low7) | x | low7);
}

// True for the printable ASCII scalars, U+0020 to U+007E: the space and the visible characters.
constexpr bool isPrintableASCII(char32_t scalar) {
    return scalar >= 0x20 && scalar <= 0x7E;
}

// True when every byte is below 0x80.
[[gnu::always_inline]] inline bool isASCII(std::string_view text) {
    return !asciiScanDetail::anyByteFlagged(text, [](auto word) { return word; });
}

// True when every byte is printable ASCII, 0x20 to 0x7E. A byte below 0x20 wraps in
// `word - spaces`, 0x7F carries into its high bit in `word + ones`, and 0x80 and above show
// as they are. A borrow or carry leaving a byte only ever starts at an offender, so the word
// answer is exact.
[[gnu::always_inline]] inline bool isPrintableASCII(std::string_view text) {
#if defined(__SSE2__)
    if (text.size() >= 16) {
        // As signed bytes, the printable ones are those above 0x1F and below 0x7F. Blocks of
        // sixteen, the last one overlapping the one before.
        const auto printable = [](const char* at) {
            const auto block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
            return _mm_movemask_epi8(_mm_and_si128(_mm_cmpgt_epi8(block, _mm_set1_epi8(0x1F)),
                                                   _mm_cmplt_epi8(block, _mm_set1_epi8(0x7F)))) ==
                   0xFFFF;
        };
        for (std::size_t i = 0; i + 16 < text.size(); i += 16) {
            if (!printable(text.data() + i)) return false;
        }
        return printable(text.data() + text.size() - 16);
    }
#endif
    return !asciiScanDetail::anyByteFlagged(text, [](auto word) {
        using Word = decltype(word);
        using asciiScanDetail::repeated;
        return static_cast<Word>(word | (word - repeated<Word>(' ')) | (word + repeated<Word>(1)));
    });
}

// True when every byte is below 0x80 and none is a CR: a byte per character, told more cheaply
// than printable ASCII is.
[[gnu::always_inline]] inline bool isASCIIWithoutCR(std::string_view text) {
#if defined(__SSE2__)
    // A byte's high bit is its own; a CR's is set by comparing.
    const auto flagged = [](__m128i block) {
        return _mm_movemask_epi8(_mm_or_si128(block, _mm_cmpeq_epi8(block, _mm_set1_epi8('\r'))));
    };
    const auto load = [](const char* at) {
        return _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
    };
    if (text.size() >= 16) {
        // Blocks of sixteen, the last one overlapping the one before.
        int found = 0;
        for (std::size_t i = 0; i + 16 < text.size(); i += 16)
            found |= flagged(load(text.data() + i));
        return (found | flagged(load(text.data() + text.size() - 16))) == 0;
    }
    if (text.size() >= 8) {
        // Two overlapping halves as one block.
        const auto half = [](const char* at) {
            return _mm_loadl_epi64(reinterpret_cast<const __m128i*>(at));
        };
        return flagged(
                   _mm_unpacklo_epi64(half(text.data()), half(text.data() + text.size() - 8))) == 0;
    }
#endif
    return !asciiScanDetail::anyByteFlagged(text, [](auto word) {
        using Word = decltype(word);
        using asciiScanDetail::repeated;
        const Word x = word ^ repeated<Word>('\r');
        return static_cast<Word>(word | ((x - repeated<Word>(1)) & ~x));
    });
}

// True when a byte is zero or 0x80 and above: text that cannot go into a zero-terminated ASCII
// string as it is. `(word - ones) & ~word` has a high bit set at a zero byte whenever the
// word holds one.
[[gnu::always_inline]] inline bool hasZeroOrNonASCII(std::string_view text) {
    return asciiScanDetail::anyByteFlagged(text, [](auto word) {
        using Word = decltype(word);
        return static_cast<Word>(word | ((word - asciiScanDetail::repeated<Word>(1)) & ~word));
    });
}

// The first zero byte in [data, data + size), and whether any byte before it has its high bit
// set: the search under every string of the wire format.
struct ZeroByteScan {
    std::int64_t zero = -1;  // the first zero byte's index; -1 when there is none
    bool highBitBeforeZero = false;
};

// Sixteen bytes a step where the buffer allows, eight, then one.
inline ZeroByteScan scanZeroByte(const std::uint8_t* data, std::int64_t size) {
    using asciiScanDetail::highBits;
    using asciiScanDetail::ones;
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
    std::uint64_t bits = highs != 0 ? 0x80 : 0;  // every byte before the zero ORed in
#else
    std::uint64_t bits = 0;  // every byte before the zero ORed in
#endif
    for (; at + 8 <= size; at += 8) {
        std::uint64_t word;
        std::memcpy(&word, data + at, 8);
        // Nonzero exactly when the word holds a zero byte; on a little-endian machine its lowest
        // set bit marks the first one.
        const auto zeros = (word - ones) & ~word & highBits;
        if (zeros == 0) {
            bits |= word;
            continue;
        }
        if constexpr (std::endian::native == std::endian::little) {
            const auto zero = std::countr_zero(zeros) / 8;
            bits |= word & ((std::uint64_t{1} << (8 * zero)) - 1);
            return {at + zero, (bits & highBits) != 0};
        }
        break;  // big-endian: the bytes below find the zero in this word
    }
    for (; at < size; ++at) {
        if (data[at] == 0) return {at, (bits & highBits) != 0};
        bits |= data[at];
    }
    return {-1, (bits & highBits) != 0};
}

}  // namespace kavrin
