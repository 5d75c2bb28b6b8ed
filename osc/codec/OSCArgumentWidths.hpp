#pragma once

#include <array>
#include <cstdint>

// Internal to the codec: shared by the checking and the reading of the view decoders.
namespace kavrin::wireFormat {

// The argument bytes of each built-in tag with a fixed width, by table index; `variableWidth`
// for the others (s, S, b, arrays and tags that are not built in). The checking table also
// sends "c" the long way, for its scalar check.
inline constexpr std::uint8_t variableWidth = 0xFF;
inline constexpr auto argumentWidths = [] {
    std::array<std::uint8_t, 256> widths{};
    widths.fill(variableWidth);
    for (const char tag : {'T', 'F', 'I', 'N'}) widths[static_cast<std::uint8_t>(tag)] = 0;
    for (const char tag : {'i', 'f', 'm', 'c'}) widths[static_cast<std::uint8_t>(tag)] = 4;
    for (const char tag : {'h', 'd', 't'}) widths[static_cast<std::uint8_t>(tag)] = 8;
    return widths;
}();
inline constexpr auto checkedWidths = [] {
    auto widths = argumentWidths;
    widths['c'] = variableWidth;
    return widths;
}();

}  // namespace kavrin::wireFormat
