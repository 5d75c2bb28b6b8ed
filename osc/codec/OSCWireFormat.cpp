#include "osc/codec/detail/OSCWireFormat.hpp"

#include <string>

#include "osc/codec/OSCSerialization.hpp"

namespace kavrin::wireFormat {

MessageHeader readMessageHeader(PassiveDataReader& reader) {
    const auto bytes = reader.remainingData();
    if (bytes.size() % 4 != 0) throw OSCDecodeError::malformed("Length not a multiple of 4 bytes.");
    if (!rawBytes::startsWithMessageHeader(bytes)) {
        throw OSCDecodeError::malformed("Does not start with an address pattern.");
    }
    MessageHeader header;
    try {
        const auto address = reader.readASCIIChunk();
        if (!address) throw OSCDecodeError::malformed("");
        header.address = *address;
    } catch (const OSCDecodeError&) {
        throw OSCDecodeError::malformed("Address pattern string could not be parsed.");
    }
    try {
        const auto tags = reader.readASCIIChunk();
        if (!tags) throw OSCDecodeError::malformed("");
        header.tags = *tags;
    } catch (const OSCDecodeError&) {
        throw OSCDecodeError::malformed("Couldn't extract OSC-type chunk.");
    }
    return header;
}

OSCDecodeError noConcreteType(char tag) {
    return OSCDecodeError::malformed(
        std::string("No concrete type found to decode OSC type tag: ") + tag);
}

OSCDecodeError arrayNotTerminated() {
    return OSCDecodeError::malformed("Array termination tag ']' was not found.");
}

std::string arrayTooDeep() {
    return "Array nesting exceeds the maximum depth of " +
           std::to_string(OSCSerialization::maximumArrayDepth) + " levels.";
}

std::string bundleTooDeep() {
    return "Bundle nesting exceeds the maximum depth of " +
           std::to_string(OSCBundle::maximumDepth) + " levels.";
}

void enterArray(int& depth) {
    if (++depth > OSCSerialization::maximumArrayDepth) {
        throw OSCDecodeError::malformed(arrayTooDeep());
    }
}

char32_t unicodeScalar(std::uint32_t value) {
    if (value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) {
        throw OSCDecodeError::malformed(
            "Character value couldn't be read. Could not form a Unicode scalar from the value.");
    }
    return static_cast<char32_t>(value);
}

}  // namespace kavrin::wireFormat
