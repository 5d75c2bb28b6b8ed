#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "osc/codec/OSCBlob.hpp"
#include "osc/codec/OSCString.hpp"
#include "osc/codec/OSCTimeTag.hpp"

namespace kavrin {

// The closed set of OSC argument kinds and their tags:
//   OSCBlob b, float f, int32_t i, OSCString s, bool T/F, char32_t c, double d, int64_t h,
//   OSCArrayValue [ ... ], OSCImpulseValue I, OSCMIDIValue m, OSCNullValue N,
//   OSCStringAltValue S, OSCTimeTag t.
// Plain values, usable from any thread. None allocates but a string or blob of more than 32
// bytes made in code, and an array's elements.

// The impulse marker; every instance equals every other.
struct OSCImpulseValue {
    friend bool operator==(const OSCImpulseValue&, const OSCImpulseValue&) = default;
};

struct OSCNullValue {
    friend bool operator==(const OSCNullValue&, const OSCNullValue&) = default;
};

// Four MIDI bytes, written in this order.
struct OSCMIDIValue {
    std::uint8_t portID = 0;
    std::uint8_t status = 0;
    std::uint8_t data1 = 0;
    std::uint8_t data2 = 0;
    friend bool operator==(const OSCMIDIValue&, const OSCMIDIValue&) = default;
};

// Text sent with the tag S: a kind of its own so that a decoded S goes back out as S, not s.
struct OSCStringAltValue {
    OSCString string;
    friend bool operator==(const OSCStringAltValue&, const OSCStringAltValue&) = default;
};

struct OSCValue;

// Values between [ and ]; arrays may nest.
struct OSCArrayValue {
    std::vector<OSCValue> elements;
    friend bool operator==(const OSCArrayValue&, const OSCArrayValue&);
};

struct OSCValue : std::variant<OSCBlob, float, std::int32_t, OSCString, bool, char32_t, double,
                               std::int64_t, OSCArrayValue, OSCImpulseValue, OSCMIDIValue,
                               OSCNullValue, OSCStringAltValue, OSCTimeTag> {
    using variant::variant;
    // The variant base, for std::visit and std::get.
    const variant& base() const { return *this; }
    variant& base() { return *this; }
};

// The kinds in the order of OSCValue's alternatives: OSCValueKind(value.index()).
enum class OSCValueKind : std::uint8_t {
    blob,
    float32,
    int32,
    string,
    boolean,
    character,
    float64,
    int64,
    array,
    impulse,
    midi,
    null,
    stringAlt,
    timeTag,
};
inline constexpr std::size_t oscValueKindCount = 14;
static_assert(std::variant_size_v<OSCValue::variant> == oscValueKindCount);

inline OSCValueKind kindOf(const OSCValue& value) {
    return static_cast<OSCValueKind>(value.index());
}
// Whether the value's destructor has nothing to do, so that a value list may leave it
// undestroyed (see SmallVector): a bit test where the variant's destructor makes an indirect call.
inline bool ownsNothing(const OSCValue& value) {
    constexpr unsigned owning = []<std::size_t... kind>(std::index_sequence<kind...>) {
        return ((unsigned{!std::is_trivially_destructible_v<
                     std::variant_alternative_t<kind, OSCValue::variant>>}
                 << kind) |
                ...);
    }(std::make_index_sequence<oscValueKindCount>{});
    const std::size_t index = value.index();
    return index >= oscValueKindCount || (owning >> index & 1) == 0;
}
// "Blob", "Float32", "Int32", "String", "Bool", "Character", "Double", "Int64", "OSCArrayValue",
// "OSCImpulseValue", "OSCMIDIValue", "OSCNullValue", "OSCStringAltValue", "OSCTimeTag".
std::string_view kindName(OSCValueKind kind);

// The value's printed form: "1", "1.0", "hello", "true", "4 bytes", "[Int32: 1, String: a]".
// Floating values print in their shortest round-trip form, integral ones with ".0".
std::string printedForm(const OSCValue& value);
// The kind name, ": " and the printed form, as in a message's description: "Int32: 1".
std::string describe(const OSCValue& value);

}  // namespace kavrin

template <>
struct std::hash<kavrin::OSCValue> {
    std::size_t operator()(const kavrin::OSCValue& value) const noexcept;
};
template <>
struct std::hash<kavrin::OSCArrayValue> {
    std::size_t operator()(const kavrin::OSCArrayValue& value) const noexcept;
};
template <>
struct std::hash<kavrin::OSCImpulseValue> {
    std::size_t operator()(const kavrin::OSCImpulseValue&) const noexcept { return 0x1f; }
};
template <>
struct std::hash<kavrin::OSCNullValue> {
    std::size_t operator()(const kavrin::OSCNullValue&) const noexcept { return 0x2f; }
};
template <>
struct std::hash<kavrin::OSCMIDIValue> {
    std::size_t operator()(const kavrin::OSCMIDIValue& value) const noexcept {
        return std::hash<std::uint32_t>{}(std::uint32_t{value.portID} << 24 |
                                          std::uint32_t{value.status} << 16 |
                                          std::uint32_t{value.data1} << 8 | value.data2);
    }
};
template <>
struct std::hash<kavrin::OSCStringAltValue> {
    std::size_t operator()(const kavrin::OSCStringAltValue& value) const noexcept {
        return std::hash<kavrin::OSCString>{}(value.string);
    }
};
