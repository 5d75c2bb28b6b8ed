#pragma once

#include <cstddef>
#include <string_view>

// UTF-8 as RFC 3629 has it: no overlong forms, no surrogates (U+D800..U+DFFF), nothing above
// U+10FFFF. The one place that decides what well-formed UTF-8 is. Plain functions: any thread.
namespace kavrin {

// The length of the well-formed sequence that `text` begins with, its scalar put in `scalar`;
// 0, and `scalar` untouched, when `text` is empty or its first byte begins none.
std::size_t leadingUTF8Scalar(std::string_view text, char32_t& scalar);

// True when the whole of `text` is well-formed UTF-8 (ASCII, the empty text and zero bytes
// included).
bool isValidUTF8(std::string_view text);

}  // namespace kavrin
