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
        if (c == '[') {
            ++depth;
        } else if (c == ']') {
            --depth;
        } else {
            data += byteCount(c, data);
        }
    } while (depth > 0);
}

void OSCArgumentView::wrongType(const char* kindName) const {
    throw OSCDecodeError(
        OSCDecodeError::Case::unexpectedType,
        std::string("OSC type tag ") + *tag_ + " cannot be read as " + kindName + ".");
}

OSCValueKind OSCArgumentView::kind() const {
    switch (*tag_) {
        case 'b':
            return OSCValueKind::blob;
        case 'f':
            return OSCValueKind::float32;
        case 'i':
            return OSCValueKind::int32;
        case 's':
            return OSCValueKind::string;
        case 'T':
        case 'F':
            return OSCValueKind::boolean;
        case 'c':
            return OSCValueKind::character;
        case 'd':
            return OSCValueKind::float64;
        case 'h':
            return OSCValueKind::int64;
        case '[':
            return OSCValueKind::array;
        case 'I':
            return OSCValueKind::impulse;
        case 'm':
            return OSCValueKind::midi;
        case 'N':
            return OSCValueKind::null;
        case 'S':
            return OSCValueKind::stringAlt;
        default:
            return OSCValueKind::timeTag;  // 't', the last tag a checked message may hold
    }
}

OSCArgumentView::Range OSCArgumentView::elements() const {
    expect('[', "OSCArrayValue");
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
    switch (argument.tag()) {
        case 'b': {
            const auto bytes = argument.blob();
            make(std::in_place_type<OSCBlob>, bytes.begin(), bytes.end());
            return;
        }
        case 'f':
            make(std::in_place_type<float>, argument.float32());
            return;
        case 'i':
            make(std::in_place_type<std::int32_t>, argument.int32());
            return;
        case 's':
            make(std::in_place_type<std::string>, argument.string());
            return;
        case 'T':
        case 'F':
            make(std::in_place_type<bool>, argument.boolean());
            return;
        case 'c':
            make(std::in_place_type<char32_t>, argument.character());
            return;
        case 'd':
            make(std::in_place_type<double>, argument.float64());
            return;
        case 'h':
            make(std::in_place_type<std::int64_t>, argument.int64());
            return;
        case '[': {
            auto& array = std::get<OSCArrayValue>(make(std::in_place_type<OSCArrayValue>));
            for (const auto element : argument.elements()) element.appendTo(array.elements);
            return;
        }
        case 'I':
            make(std::in_place_type<OSCImpulseValue>);
            return;
        case 'm':
            make(std::in_place_type<OSCMIDIValue>, argument.midi());
            return;
        case 'N':
            make(std::in_place_type<OSCNullValue>);
            return;
        case 'S':
            make(std::in_place_type<OSCStringAltValue>,
                 OSCStringAltValue{std::string(argument.string())});
            return;
        default:  // 't', the last tag a checked message may hold
            make(std::in_place_type<OSCTimeTag>, argument.timeTag());
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
