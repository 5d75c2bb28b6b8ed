#pragma once

namespace kavrin {

// Which text the string arguments (s and S) may hold, for decoding and encoding alike; addresses
// and type tag strings are ASCII under either.
//
// ascii, the default: decoding refuses a string with a byte of 0x80 or above, and encoding
// makes such text printable ASCII first (lossyASCII: "wörld" goes out as "world").
// utf8: decoding also accepts well-formed UTF-8 (RFC 3629: no overlong forms, no surrogates,
// nothing above U+10FFFF) and encoding keeps it as it is. Text that is not well-formed UTF-8,
// or holds a zero byte, is refused or converted as under ascii, with the same error text.
//
// Many peers (Pure Data, show-control programs, desks naming their channels) send UTF-8; take
// utf8 to read their strings rather than drop their packets.
enum class OSCTextPolicy { ascii, utf8 };

}  // namespace kavrin
