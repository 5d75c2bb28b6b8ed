#include "osc/codec/OSCArgumentView.hpp"

#include <string>

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
    return {Iterator(tag_ + 1, close, data_), Iterator(close, close, data)};
}

OSCValue OSCArgumentView::value() const {
    switch (*tag_) {
        case 'b': {
            const auto bytes = blob();
            return OSCBlob(bytes.begin(), bytes.end());
        }
        case 'f':
            return float32();
        case 'i':
            return int32();
        case 's':
            return std::string(string());
        case 'T':
        case 'F':
            return boolean();
        case 'c':
            return character();
        case 'd':
            return float64();
        case 'h':
            return int64();
        case '[': {
            OSCArrayValue array;
            for (const auto element : elements()) array.elements.push_back(element.value());
            return array;
        }
        case 'I':
            return OSCImpulseValue{};
        case 'm':
            return midi();
        case 'N':
            return OSCNullValue{};
        case 'S':
            return OSCStringAltValue{std::string(string())};
        default:
            return timeTag();
    }
}

}  // namespace kavrin
