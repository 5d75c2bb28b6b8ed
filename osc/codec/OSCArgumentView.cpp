#include "osc/codec/OSCArgumentView.hpp"

#include <optional>
#include <string>
#include <utility>

#include "osc/codec/OSCError.hpp"

namespace kavrin {

void OSCArgumentView::skipArray(const char*& tag, const std::uint8_t*& data) {
    int depth = 0;
    do {
        const char c = *tag++;
        if (c == oscArrayStart) {
            ++depth;
        } else if (c == oscArrayEnd) {
            --depth;
        } else {
            data += byteCount(c, data);
        }
    } while (depth > 0);
}

void OSCArgumentView::wrongType(OSCValueKind kind) const {
    throw OSCDecodeError(OSCDecodeError::Case::unexpectedType,
                         std::string("OSC type tag ") + *tag_ + " cannot be read as " +
                             std::string(kindName(kind)) + ".");
}

OSCValueKind OSCArgumentView::kind() const {
    return oscTypeTag::find(*tag_)->kind;  // a checked message holds only known tags
}

OSCArgumentView::Range OSCArgumentView::elements() const {
    expect<OSCValueKind::array>();
    const char* close = tag_;
    const std::uint8_t* data = data_;
    skipArray(close, data);
    --close;  // back onto the "]"
    return {Iterator(tag_ + 1, data_), Iterator(close, data)};
}

namespace {

// Makes the argument's value with make(std::in_place_type<Kind>, constructor arguments...),
// which puts it where it belongs and returns it; an array is then filled in place.
template <class Make>
void makeValue(const OSCArgumentView& argument, Make&& make) {
    switch (argument.kind()) {
        case OSCValueKind::blob: {
            const auto bytes = argument.blob();
            make(std::in_place_type<OSCBlob>, bytes.begin(), bytes.end());
            return;
        }
        case OSCValueKind::float32:
            make(std::in_place_type<float>, argument.float32());
            return;
        case OSCValueKind::int32:
            make(std::in_place_type<std::int32_t>, argument.int32());
            return;
        case OSCValueKind::string:
            make(std::in_place_type<std::string>, argument.string());
            return;
        case OSCValueKind::boolean:
            make(std::in_place_type<bool>, argument.boolean());
            return;
        case OSCValueKind::character:
            make(std::in_place_type<char32_t>, argument.character());
            return;
        case OSCValueKind::float64:
            make(std::in_place_type<double>, argument.float64());
            return;
        case OSCValueKind::int64:
            make(std::in_place_type<std::int64_t>, argument.int64());
            return;
        case OSCValueKind::array: {
            auto& array = std::get<OSCArrayValue>(make(std::in_place_type<OSCArrayValue>));
            for (const auto element : argument.elements()) element.appendTo(array.elements);
            return;
        }
        case OSCValueKind::impulse:
            make(std::in_place_type<OSCImpulseValue>);
            return;
        case OSCValueKind::midi:
            make(std::in_place_type<OSCMIDIValue>, argument.midi());
            return;
        case OSCValueKind::null:
            make(std::in_place_type<OSCNullValue>);
            return;
        case OSCValueKind::stringAlt:
            make(std::in_place_type<OSCStringAltValue>,
                 OSCStringAltValue{std::string(argument.string())});
            return;
        case OSCValueKind::timeTag:
            make(std::in_place_type<OSCTimeTag>, argument.timeTag());
            return;
    }
}

}  // namespace

OSCValue OSCArgumentView::value() const {
    std::optional<OSCValue> value;
    makeValue(*this, [&](auto kind, auto&&... arguments) -> OSCValue& {
        return value.emplace(kind, std::forward<decltype(arguments)>(arguments)...);
    });
    return std::move(*value);
}

// In place in the vector: decoding a message makes one value per argument.
void OSCArgumentView::appendTo(std::vector<OSCValue>& values) const {
    makeValue(*this, [&](auto kind, auto&&... arguments) -> OSCValue& {
        return values.emplace_back(kind, std::forward<decltype(arguments)>(arguments)...);
    });
}

}  // namespace kavrin
