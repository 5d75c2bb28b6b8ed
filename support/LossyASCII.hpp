#pragma once

#include <string>
#include <string_view>

namespace kavrin {

// Turns UTF-8 text into printable ASCII: ICU's "Latin-ASCII" transliteration first (é -> e),
// the text unchanged when that fails or yields nothing, then every code point outside
// U+0020..U+007E dropped (controls, tabs and line ends included). Invalid UTF-8 never throws;
// its bytes are dropped. Callable from any thread (the shared transliterator is locked).
std::string lossyASCII(std::string_view utf8);

}  // namespace kavrin
