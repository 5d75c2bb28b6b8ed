#include "osc/codec/OSCBuiltInValueKinds.hpp"

#include <bit>
#include <cstdint>
#include <cstring>
#include <string>

#include "osc/pattern/LossyASCII.hpp"
#include "osc/codec/OSCError.hpp"
#include "osc/codec/OSCSerialization.hpp"
#include "osc/codec/OSCWireFormat.hpp"

namespace kavrin {

namespace {

using Registration = OSCSerialization::Registration;

// Text goes on the wire as it is when it is ASCII without zero bytes; anything else is first
// made printable ASCII (the decoder accepts nothing else, and a zero would end the string).
void putText(const std::string& text, OSCValueEncoder& encoder) {
    // A byte of 0x80 or more, or a zero, sets a high bit in `flags`. Whole words, the last one
    // overlapping the one before: encoding looks at every string twice (measuring, writing).
    const auto flagsOf = [](auto word) {
        using Word = decltype(word);
        constexpr Word ones = static_cast<Word>(0x0101010101010101ULL);
        return static_cast<std::uint64_t>(word | ((word - ones) & ~word));
    };
    const char* const data = text.data();
    const std::size_t size = text.size();
    std::uint64_t flags = 0;
    if (size >= 8) {
        std::uint64_t word;
        for (std::size_t i = 0; i + 8 < size; i += 8) {
            std::memcpy(&word, data + i, 8);
            flags |= flagsOf(word);
        }
        std::memcpy(&word, data + size - 8, 8);
        flags |= flagsOf(word);
    } else if (size >= 4) {
        std::uint32_t low, high;
        std::memcpy(&low, data, 4);
        std::memcpy(&high, data + size - 4, 4);
        flags = flagsOf(low) | flagsOf(high);
    } else {
        for (std::size_t i = 0; i < size; ++i) {
            const auto byte = static_cast<unsigned char>(data[i]);
            flags |= byte == 0 ? 0x80 : byte;
        }
    }
    if ((flags & 0x8080808080808080ULL) != 0) {
        encoder.nullTerminated(lossyASCII(text));
    } else {
        encoder.nullTerminated(text);
    }
}

template <class T>
const T& as(const OSCValue& value) {
    return *std::get_if<T>(&value.base());
}

// The byte-level kinds: one atomic tag, a decoder and an encoder each.
Registration atomic(OSCValueKind kind, char tag, bool (*decode)(OSCValueDecoder&, OSCValue&),
                    void (*encode)(const OSCValue&, OSCValueEncoder&)) {
    return {kind, OSCValueTagIdentity::atomic(tag), OSCValueAtomicEncoder{encode},
            OSCValueAtomicDecoder{decode}};
}

std::size_t decodeArray(std::string_view tags, OSCValueDecoder& decoder, OSCValue& value) {
    wireFormat::enterArray(decoder.arrayDepth);
    auto& elements = value.emplace<OSCArrayValue>().elements;
    std::size_t index = 1;  // past "["
    while (index < tags.size()) {
        if (tags[index] == ']') {
            --decoder.arrayDepth;
            return index + 1;
        }
        decoder.serialization.decodeValue(tags, index, decoder, elements);
    }
    throw wireFormat::arrayNotTerminated();
}

void encodeArray(const OSCValue& value, OSCValueEncoder& encoder) {
    if (++encoder.arrayDepth > OSCSerialization::maximumArrayDepth) {
        throw OSCEncodeError(OSCEncodeError::Case::general,
                             "Array nesting exceeds the maximum depth of " +
                                 std::to_string(OSCSerialization::maximumArrayDepth) + " levels.");
    }
    encoder.tag('[');
    for (const auto& element : as<OSCArrayValue>(value).elements) {
        encoder.serialization().encodeValue(element, encoder);
    }
    encoder.tag(']');
    --encoder.arrayDepth;
}

}  // namespace

void registerBuiltInValueKinds(OSCSerialization& serialization) {
    using K = OSCValueKind;
    serialization.registerKind(atomic(
        K::blob, 'b',
        [](OSCValueDecoder& d, OSCValue& v) {
            v.emplace<OSCBlob>(d.reader.readBlob());
            return true;
        },
        [](const OSCValue& v, OSCValueEncoder& e) {
            const auto& blob = as<OSCBlob>(v);
            e.uint32(static_cast<std::uint32_t>(blob.size()));
            e.bytes(blob.data(), blob.size());
            e.padToWord();
        }));
    serialization.registerKind(atomic(
        K::float32, 'f',
        [](OSCValueDecoder& d, OSCValue& v) {
            v.emplace<float>(d.reader.readFloat32());
            return true;
        },
        [](const OSCValue& v, OSCValueEncoder& e) {
            e.uint32(std::bit_cast<std::uint32_t>(as<float>(v)));
        }));
    serialization.registerKind(atomic(
        K::int32, 'i',
        [](OSCValueDecoder& d, OSCValue& v) {
            v.emplace<std::int32_t>(d.reader.readInt32());
            return true;
        },
        [](const OSCValue& v, OSCValueEncoder& e) {
            e.uint32(static_cast<std::uint32_t>(as<std::int32_t>(v)));
        }));
    serialization.registerKind(atomic(
        K::string, 's',
        [](OSCValueDecoder& d, OSCValue& v) {
            v.emplace<std::string>(d.reader.readString());
            return true;
        },
        [](const OSCValue& v, OSCValueEncoder& e) { putText(as<std::string>(v), e); }));
    serialization.registerKind(
        {K::boolean, OSCValueTagIdentity::variable("TF"),
         OSCValueVariableEncoder{
             [](const OSCValue& v, OSCValueEncoder&) { return as<bool>(v) ? 'T' : 'F'; }},
         OSCValueVariableDecoder{[](char tag, OSCValueDecoder&, OSCValue& v) {
             v.emplace<bool>(tag == 'T');
             return true;
         }}});
    serialization.registerKind(atomic(
        K::character, 'c',
        [](OSCValueDecoder& d, OSCValue& v) {
            v.emplace<char32_t>(
                wireFormat::unicodeScalar(static_cast<std::uint32_t>(d.reader.readInt32())));
            return true;
        },
        [](const OSCValue& v, OSCValueEncoder& e) {
            e.uint32(static_cast<std::uint32_t>(as<char32_t>(v)));
        }));
    serialization.registerKind(atomic(
        K::float64, 'd',
        [](OSCValueDecoder& d, OSCValue& v) {
            v.emplace<double>(d.reader.readDouble());
            return true;
        },
        [](const OSCValue& v, OSCValueEncoder& e) {
            e.uint64(std::bit_cast<std::uint64_t>(as<double>(v)));
        }));
    serialization.registerKind(atomic(
        K::int64, 'h',
        [](OSCValueDecoder& d, OSCValue& v) {
            v.emplace<std::int64_t>(d.reader.readInt64());
            return true;
        },
        [](const OSCValue& v, OSCValueEncoder& e) {
            e.uint64(static_cast<std::uint64_t>(as<std::int64_t>(v)));
        }));
    serialization.registerKind({K::array, OSCValueTagIdentity::variadic('[', 2),
                                OSCValueVariadicEncoder{encodeArray},
                                OSCValueVariadicDecoder{decodeArray}});
    serialization.registerKind(atomic(
        K::impulse, 'I',
        [](OSCValueDecoder&, OSCValue& v) {
            v.emplace<OSCImpulseValue>();
            return true;
        },
        [](const OSCValue&, OSCValueEncoder&) {}));
    serialization.registerKind(atomic(
        K::midi, 'm',
        [](OSCValueDecoder& d, OSCValue& v) {
            const auto bytes = d.reader.readByteView(4);
            v.emplace<OSCMIDIValue>(OSCMIDIValue{bytes[0], bytes[1], bytes[2], bytes[3]});
            return true;
        },
        [](const OSCValue& v, OSCValueEncoder& e) {
            const auto& midi = as<OSCMIDIValue>(v);
            const std::uint8_t bytes[4] = {midi.portID, midi.status, midi.data1, midi.data2};
            e.bytes(bytes, 4);
        }));
    serialization.registerKind(atomic(
        K::null, 'N',
        [](OSCValueDecoder&, OSCValue& v) {
            v.emplace<OSCNullValue>();
            return true;
        },
        [](const OSCValue&, OSCValueEncoder&) {}));
    serialization.registerKind(atomic(
        K::stringAlt, 'S',
        [](OSCValueDecoder& d, OSCValue& v) {
            v.emplace<OSCStringAltValue>(OSCStringAltValue{d.reader.readString()});
            return true;
        },
        [](const OSCValue& v, OSCValueEncoder& e) {
            putText(as<OSCStringAltValue>(v).string, e);
        }));
    serialization.registerKind(atomic(
        K::timeTag, 't',
        [](OSCValueDecoder& d, OSCValue& v) {
            v.emplace<OSCTimeTag>(OSCTimeTag{0, d.reader.readUInt64()});
            return true;
        },
        [](const OSCValue& v, OSCValueEncoder& e) { e.uint64(as<OSCTimeTag>(v).rawValue); }));
}

}  // namespace kavrin
