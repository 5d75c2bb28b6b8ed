#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "osc/codec/OSCPadding.hpp"
#include "osc/codec/OSCTypeTag.hpp"
#include "osc/codec/OSCValue.hpp"
#include "support/ASCIIScan.hpp"
#include "support/BigEndian.hpp"
#include "support/CompactBytes.hpp"

// Internal to the codec: the values a message writes itself, with one switch on the kind and no
// encoder in between: numbers, booleans, the markers, blobs and plain ASCII strings, which are
// nearly all values sent. Arrays, S and text that needs the policy's judgement go through the
// registry (OSCSerialization), which writes the same bytes for these too.
namespace kavrin::valueWriting {

inline constexpr std::ptrdiff_t general = -1;

// The argument bytes of each kind of a fixed width, from the wire format's table.
inline constexpr auto kindWidths = [] {
    std::array<std::uint8_t, oscValueKindCount> widths{};
    widths.fill(oscTypeTag::variableWidth);
    for (const auto& entry : oscTypeTags) {
        widths[static_cast<std::size_t>(entry.kind)] = oscTypeTag::width(entry.format);
    }
    return widths;
}();

// Copies text or bytes into the output: the usual short ones (an address, a string, a blob) in
// a few moves rather than a call to the library's copy.
inline void copyBytes(std::uint8_t* out, const std::uint8_t* from, std::size_t size) {
    if (size <= 64) {
        copyShortBytes<64>(out, from, size);
    } else {
        std::memcpy(out, from, size);
    }
}

// The argument bytes of `value` when it is written here, else `general`.
inline std::ptrdiff_t size(const OSCValue& value) {
    if (const auto width = kindWidths[value.index()]; width != oscTypeTag::variableWidth) {
        return width;
    }
    if (const auto* text = std::get_if<OSCString>(&value.base())) {
        if (hasZeroOrNonASCII(text->view())) return general;
        return static_cast<std::ptrdiff_t>(padding::nullTerminatedSize(text->size()));
    }
    if (const auto* blob = std::get_if<OSCBlob>(&value.base())) {
        return static_cast<std::ptrdiff_t>(4 + padding::wordAligned(blob->size()));
    }
    return general;
}

// Writes the tag of `value` at `tag` and its argument bytes at `out`, which are zero-filled, and
// returns their size; writes nothing and returns `general` for a value size() leaves to the
// registry.
inline std::ptrdiff_t write(const OSCValue& value, std::uint8_t* tag, std::uint8_t* out) {
    const auto& base = value.base();
    const auto kind = kindOf(value);
    switch (kind) {
        case OSCValueKind::int32:
            *tag = oscTypeTag::tagFor<OSCValueKind::int32>;
            bigEndian::store32(out, static_cast<std::uint32_t>(*std::get_if<std::int32_t>(&base)));
            return 4;
        case OSCValueKind::float32:
            *tag = oscTypeTag::tagFor<OSCValueKind::float32>;
            bigEndian::store32(out, std::bit_cast<std::uint32_t>(*std::get_if<float>(&base)));
            return 4;
        case OSCValueKind::character:
            *tag = oscTypeTag::tagFor<OSCValueKind::character>;
            bigEndian::store32(out, static_cast<std::uint32_t>(*std::get_if<char32_t>(&base)));
            return 4;
        case OSCValueKind::midi: {
            *tag = oscTypeTag::tagFor<OSCValueKind::midi>;
            const auto& midi = *std::get_if<OSCMIDIValue>(&base);
            out[0] = midi.portID;
            out[1] = midi.status;
            out[2] = midi.data1;
            out[3] = midi.data2;
            return 4;
        }
        case OSCValueKind::int64:
            *tag = oscTypeTag::tagFor<OSCValueKind::int64>;
            bigEndian::store64(out, static_cast<std::uint64_t>(*std::get_if<std::int64_t>(&base)));
            return 8;
        case OSCValueKind::float64:
            *tag = oscTypeTag::tagFor<OSCValueKind::float64>;
            bigEndian::store64(out, std::bit_cast<std::uint64_t>(*std::get_if<double>(&base)));
            return 8;
        case OSCValueKind::timeTag:
            *tag = oscTypeTag::tagFor<OSCValueKind::timeTag>;
            bigEndian::store64(out, std::get_if<OSCTimeTag>(&base)->rawValue);
            return 8;
        case OSCValueKind::boolean:
            *tag = *std::get_if<bool>(&base) ? oscTypeTag::tagFor<OSCValueKind::boolean>
                                             : oscTypeTag::tagFor<OSCValueKind::boolean, 1>;
            return 0;
        case OSCValueKind::impulse:
            *tag = oscTypeTag::tagFor<OSCValueKind::impulse>;
            return 0;
        case OSCValueKind::null:
            *tag = oscTypeTag::tagFor<OSCValueKind::null>;
            return 0;
        case OSCValueKind::string: {
            const auto text = std::get_if<OSCString>(&base)->view();
            if (hasZeroOrNonASCII(text)) return general;
            *tag = oscTypeTag::tagFor<OSCValueKind::string>;
            // The zeros after it are there.
            copyBytes(out, reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
            return static_cast<std::ptrdiff_t>(padding::nullTerminatedSize(text.size()));
        }
        case OSCValueKind::blob: {
            const auto& blob = *std::get_if<OSCBlob>(&base);
            *tag = oscTypeTag::tagFor<OSCValueKind::blob>;
            bigEndian::store32(out, static_cast<std::uint32_t>(blob.size()));
            copyBytes(out + 4, blob.data(), blob.size());
            return static_cast<std::ptrdiff_t>(4 + padding::wordAligned(blob.size()));
        }
        default:
            return general;
    }
}

}  // namespace kavrin::valueWriting
