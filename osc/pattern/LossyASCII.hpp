#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace kavrin {

// Turns UTF-8 text into printable ASCII: ICU's "Latin-ASCII" transliteration first (é -> e),
// the text unchanged when that fails or yields nothing, then every code point outside
// U+0020..U+007E dropped (controls, tabs and line ends included). Invalid UTF-8 never throws;
// its bytes are dropped. Callable from any thread (the shared transliterator is locked).
std::string lossyASCII(std::string_view utf8);

// True when every byte is below 0x80: such text needs no conversion. Eight bytes at a time, as
// every received address and string passes through here.
inline bool isASCII(std::string_view text) {
    std::uint64_t bits = 0;
    std::size_t i = 0;
    for (; i + 8 <= text.size(); i += 8) {
        std::uint64_t word;
        std::memcpy(&word, text.data() + i, 8);
        bits |= word;
    }
    for (; i < text.size(); ++i) bits |= static_cast<unsigned char>(text[i]);
    return (bits & 0x8080808080808080ULL) == 0;
}

}  // namespace kavrin
