#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "osc/codec/OSCValue.hpp"

namespace kavrin {

// How the argument bytes of one tag are laid out after the tag string. The reading of each also
// decides the error text when the bytes run short: m is four bytes, not a number.
enum class OSCArgumentFormat : std::uint8_t {
    none,       // T F I N: no bytes
    int32,      // i: 4 bytes, two's complement
    float32,    // f: 4 bytes, IEEE 754 single
    character,  // c: an Int32 that must hold a Unicode scalar
    midi,       // m: 4 bytes, read as bytes
    int64,      // h: 8 bytes, two's complement
    float64,    // d: 8 bytes, IEEE 754 double
    timeTag,    // t: 8 bytes, unsigned
    string,     // s S: ASCII, a zero, zeros up to a word (four when already whole words)
    blob,       // b: an Int32 length, the bytes, zeros up to a word (none when already whole)
    array,      // [: the elements' bytes, up to the matching ]
};

// One tag character of the wire format: the value kind it stands for and its argument bytes.
struct OSCTypeTag {
    char tag;
    OSCValueKind kind;
    OSCArgumentFormat format;
};

// The wire format: every tag the codec reads and writes, the kinds in the order of OSCValue's
// alternatives. The registry (OSCSerialization) is built from it, and the decoders, the message
// views and the encoder look tags up here; nothing else in the codec knows a tag character.
inline constexpr std::array<OSCTypeTag, 15> oscTypeTags = {{
    {'b', OSCValueKind::blob, OSCArgumentFormat::blob},
    {'f', OSCValueKind::float32, OSCArgumentFormat::float32},
    {'i', OSCValueKind::int32, OSCArgumentFormat::int32},
    {'s', OSCValueKind::string, OSCArgumentFormat::string},
    {'T', OSCValueKind::boolean, OSCArgumentFormat::none},
    {'F', OSCValueKind::boolean, OSCArgumentFormat::none},
    {'c', OSCValueKind::character, OSCArgumentFormat::character},
    {'d', OSCValueKind::float64, OSCArgumentFormat::float64},
    {'h', OSCValueKind::int64, OSCArgumentFormat::int64},
    {'[', OSCValueKind::array, OSCArgumentFormat::array},
    {'I', OSCValueKind::impulse, OSCArgumentFormat::none},
    {'m', OSCValueKind::midi, OSCArgumentFormat::midi},
    {'N', OSCValueKind::null, OSCArgumentFormat::none},
    {'S', OSCValueKind::stringAlt, OSCArgumentFormat::string},
    {'t', OSCValueKind::timeTag, OSCArgumentFormat::timeTag},
}};

// The tag that opens an array, and the one that closes it, which stands for no value of its own.
inline constexpr char oscArrayStart = [] {
    for (const auto& entry : oscTypeTags) {
        if (entry.format == OSCArgumentFormat::array) return entry.tag;
    }
    return '\0';  // never: the table has an array entry, which the compiler checks here
}();
static_assert(oscArrayStart != '\0');
inline constexpr char oscArrayEnd = ']';

namespace oscTypeTag {

inline constexpr std::uint8_t notATag = 0xFF;

// The index in oscTypeTags of every byte, notATag for those no kind owns: a lookup is one load.
inline constexpr auto indexOf = [] {
    std::array<std::uint8_t, 256> index{};
    index.fill(notATag);
    for (std::size_t i = 0; i < oscTypeTags.size(); ++i) {
        index[static_cast<std::uint8_t>(oscTypeTags[i].tag)] = static_cast<std::uint8_t>(i);
    }
    return index;
}();

// The entry of `tag`; nullptr for a character no kind owns, the array's end included.
constexpr const OSCTypeTag* find(char tag) {
    const auto index = indexOf[static_cast<std::uint8_t>(tag)];
    return index == notATag ? nullptr : &oscTypeTags[index];
}

// The `nth` tag of `kind` in the table (Bool: 'T', then 'F').
constexpr char tagOf(OSCValueKind kind, std::size_t nth = 0) {
    for (const auto& entry : oscTypeTags) {
        if (entry.kind == kind && nth-- == 0) return entry.tag;
    }
    return 0;
}

// The same, worked out when the code is compiled.
template <OSCValueKind kind, std::size_t nth = 0>
inline constexpr char tagFor = tagOf(kind, nth);

inline constexpr std::uint8_t variableWidth = 0xFF;

// The argument bytes of a format of fixed size; variableWidth for strings, blobs and arrays.
constexpr std::uint8_t width(OSCArgumentFormat format) {
    switch (format) {
        case OSCArgumentFormat::none:
            return 0;
        case OSCArgumentFormat::int32:
        case OSCArgumentFormat::float32:
        case OSCArgumentFormat::character:
        case OSCArgumentFormat::midi:
            return 4;
        case OSCArgumentFormat::int64:
        case OSCArgumentFormat::float64:
        case OSCArgumentFormat::timeTag:
            return 8;
        default:
            return variableWidth;
    }
}

// The fixed argument width of every byte as a tag: variableWidth for the tags above and for
// bytes that are no tag.
inline constexpr auto widthOf = [] {
    std::array<std::uint8_t, 256> widths{};
    widths.fill(variableWidth);
    for (const auto& entry : oscTypeTags) {
        widths[static_cast<std::uint8_t>(entry.tag)] = width(entry.format);
    }
    return widths;
}();

}  // namespace oscTypeTag

}  // namespace kavrin
