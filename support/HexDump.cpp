#include "support/HexDump.hpp"

#include <algorithm>
#include <iterator>

#include <fmt/format.h>

#include "support/ASCIIScan.hpp"

namespace kavrin {

namespace {

constexpr std::size_t bytesPerLine = 16;
constexpr std::size_t bytesPerGroup = 2;
// Two digits a byte and a space after each group: where the text column starts.
constexpr std::size_t hexColumnWidth = 2 * bytesPerLine + bytesPerLine / bytesPerGroup;

}  // namespace

std::string hexDump(std::span<const std::uint8_t> bytes, std::uint64_t firstOffset) {
    std::string text;
    auto out = std::back_inserter(text);
    for (std::size_t line = 0; line < bytes.size(); line += bytesPerLine) {
        const auto row = bytes.subspan(line, std::min(bytesPerLine, bytes.size() - line));
        fmt::format_to(out, "{:08x}: ", firstOffset + line);
        const std::size_t hexStart = text.size();
        for (std::size_t i = 0; i < row.size(); ++i) {
            fmt::format_to(out, "{:02x}", row[i]);
            if (i % bytesPerGroup == bytesPerGroup - 1) text += ' ';
        }
        text.append(hexColumnWidth + 1 - (text.size() - hexStart), ' ');
        for (const auto byte : row) text += isPrintableASCII(byte) ? static_cast<char>(byte) : '.';
        text += '\n';
    }
    return text;
}

std::string hexDump(std::string_view bytes, std::uint64_t firstOffset) {
    return hexDump(std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()),
                   firstOffset);
}

}  // namespace kavrin
