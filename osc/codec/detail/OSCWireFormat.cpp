#include "osc/codec/detail/OSCWireFormat.hpp"

#include <string>

#include "osc/codec/OSCSerialization.hpp"

namespace kavrin::wireFormat {

MessageHeader readMessageHeader(PassiveDataReader& reader) {
    const auto bytes = reader.remainingData();
    if (bytes.size() % 4 != 0) throw OSCDecodeError::malformed("Length not a multiple of 4 bytes.");
    if (!startsWithMessageHeader(bytes)) {
        throw OSCDecodeError::malformed("Does not start with an address pattern.");
    }
    // A chunk that cannot be read, or is no ASCII, fails with the text of its part.
    const auto readPart = [&](const char* failure) {
        try {
            if (const auto text = reader.readTextChunk(OSCTextPolicy::ascii)) return *text;
        } catch (const OSCDecodeError&) {
        }
        throw OSCDecodeError::malformed(failure);
    };
    MessageHeader header;
    header.address = readPart("Address pattern string could not be parsed.");
    header.tags = readPart("Couldn't extract OSC-type chunk.");
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
