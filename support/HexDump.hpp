#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace kavrin {

// The bytes as xxd prints them by default, one line of 16 per "\n"-ended line: the offset in
// eight hexadecimal digits (more when it needs them), then the bytes in groups of two, then the
// bytes as text, printable ASCII as it is and every other byte as '.'. A short last line is
// padded so that its text lines up. `firstOffset` numbers the first byte, for dumping a slice.
// No bytes, no lines. Any thread.
std::string hexDump(std::span<const std::uint8_t> bytes, std::uint64_t firstOffset = 0);
std::string hexDump(std::string_view bytes, std::uint64_t firstOffset = 0);

}  // namespace kavrin
