#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "osc/codec/OSCBundle.hpp"
#include "osc/codec/OSCError.hpp"
#include "osc/codec/OSCTextPolicy.hpp"
#include "osc/codec/OSCTimeTag.hpp"
#include "osc/codec/PassiveDataReader.hpp"
#include "osc/codec/detail/OSCRawBytes.hpp"
#include "support/ASCIIScan.hpp"
#include "support/UTF8.hpp"

// Internal to the codec: the checks and error texts of the wire format that the decoders share
// (a message's walk in OSCArgumentCheck, a bundle's in readBundle, which the views and the owning
// decoders all take), so that every decoder refuses the same bytes with the same text.
namespace kavrin::wireFormat {

// Where a message's arguments begin: its address and tag string, views into the bytes.
struct MessageHeader {
    std::string_view address;
    std::string_view tags;
};

// Checks the length, the header, the address and the tag string in this order, and leaves
// `reader` (at offset 0 over the whole message) at the first argument byte.
MessageHeader readMessageHeader(PassiveDataReader& reader);

// Whether a string argument goes on the wire as it is under `policy`: text the decoder takes
// back, with no zero byte (which would end it). Other text is made printable ASCII first.
inline bool keepsText(std::string_view text, OSCTextPolicy policy) {
    if (!hasZeroOrNonASCII(text)) return true;
    return policy == OSCTextPolicy::utf8 && text.find('\0') == std::string_view::npos &&
           isValidUTF8(text);
}

OSCDecodeError noConcreteType(char tag);
OSCDecodeError arrayNotTerminated();
// The texts for nesting beyond the limits, shared by decoding and encoding.
std::string arrayTooDeep();
std::string bundleTooDeep();
// Counts one more level of array nesting; throws beyond OSCSerialization::maximumArrayDepth.
void enterArray(int& depth);
// The scalar a "c" argument carries; throws when it is a surrogate or beyond U+10FFFF.
char32_t unicodeScalar(std::uint32_t value);

// Walks a bundle's header and elements with the checks, in the order and with the texts of
// OSCBundle::decode; calls element(bytes, isBundle) for each element in order, and returns the
// time tag. `depth` is 1 for the outermost bundle.
template <class Element>
OSCTimeTag readBundle(std::span<const std::uint8_t> bytes, int depth, Element&& element) {
    if (bytes.size() < 16) {
        throw OSCDecodeError::malformed("Data length too short. (Length is " +
                                        std::to_string(bytes.size()) + ")");
    }
    if (!startsWithBundleHeader(bytes)) {
        throw OSCDecodeError::malformed("Bundle header is not present or is malformed.");
    }
    if (depth > OSCBundle::maximumDepth) throw OSCDecodeError::malformed(bundleTooDeep());
    PassiveDataReader reader(bytes);
    reader.advance(8);
    const OSCTimeTag timeTag{0, reader.readUInt64()};
    while (reader.remainingByteCount() > 0) {
        if (reader.remainingByteCount() < 4) {
            throw OSCDecodeError::malformed("Could not convert element size to Int32.");
        }
        const std::int64_t size = reader.readInt32();
        if (size < 0 || size > reader.remainingByteCount()) {
            throw OSCDecodeError::malformed("Data bytes ended earlier than expected.");
        }
        const auto elementBytes = reader.remainingData().first(static_cast<std::size_t>(size));
        if (startsWithBundleHeader(elementBytes)) {
            element(elementBytes, true);
        } else if (startsWithMessageHeader(elementBytes)) {
            element(elementBytes, false);
        } else {
            throw OSCDecodeError::malformed("Unrecognized bundle element encountered.");
        }
        reader.advance(size);
    }
    return timeTag;
}

}  // namespace kavrin::wireFormat
