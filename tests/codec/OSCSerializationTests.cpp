#include "osc/codec/OSCSerialization.hpp"

#include <gtest/gtest.h>

#include <string>

#include "osc/codec/OSCError.hpp"
#include "tests/codec/CodecTestSupport.hpp"

namespace kavrin {
namespace {

using test::bytes;
using test::Bytes;

std::string walkFailure(const OSCSerialization& serialization, std::string_view tags,
                        const Bytes& data = {}) {
    PassiveDataReader reader(data);
    OSCValueDecoder decoder{reader, serialization};
    std::vector<OSCValue> values;
    std::size_t index = 0;
    try {
        serialization.decodeValue(tags, index, decoder, values);
    } catch (const OSCDecodeError& error) {
        EXPECT_TRUE(values.empty()) << tags;
        return error.what();
    }
    return "decoded";
}

TEST(OSCSerialization, TheSharedRegistryOwnsEveryBuiltInTagOnce) {
    const auto& shared = OSCSerialization::shared();
    ASSERT_EQ(shared.tagIdentities().size(), oscValueKindCount);
    for (std::size_t i = 0; i < oscValueKindCount; ++i) {
        EXPECT_EQ(shared.tagIdentities()[i].kind, static_cast<OSCValueKind>(i));
    }
    const std::pair<char, OSCValueKind> owners[] = {
        {'b', OSCValueKind::blob},      {'f', OSCValueKind::float32},
        {'i', OSCValueKind::int32},     {'s', OSCValueKind::string},
        {'T', OSCValueKind::boolean},   {'F', OSCValueKind::boolean},
        {'c', OSCValueKind::character}, {'d', OSCValueKind::float64},
        {'h', OSCValueKind::int64},     {'[', OSCValueKind::array},
        {'I', OSCValueKind::impulse},   {'m', OSCValueKind::midi},
        {'N', OSCValueKind::null},      {'S', OSCValueKind::stringAlt},
        {'t', OSCValueKind::timeTag},
    };
    for (const auto& [tag, kind] : owners) {
        ASSERT_NE(shared.registration(tag), nullptr) << tag;
        EXPECT_EQ(shared.registration(tag)->kind, kind) << tag;
    }
    EXPECT_EQ(shared.registration(']'), nullptr);
    EXPECT_EQ(shared.registration('x'), nullptr);
    EXPECT_EQ(shared.registration(OSCValueKind::boolean)->identity,
              OSCValueTagIdentity::variable("TF"));
    EXPECT_EQ(shared.registration(OSCValueKind::array)->identity,
              OSCValueTagIdentity::variadic('[', 2));

    auto copy = OSCSerialization::withBuiltInKinds();
    try {
        copy.registerKind({OSCValueKind::int64, OSCValueTagIdentity::variable("qi"), {}, {}});
        ADD_FAILURE() << "a second owner of i was accepted";
    } catch (const OSCSerializationError& error) {
        EXPECT_EQ(error.errorCase(), OSCSerializationError::Case::tagAlreadyRegistered);
    }
    EXPECT_EQ(copy.registration('q'), nullptr);  // nothing of a refused kind is kept
    EXPECT_EQ(copy.tagIdentities().size(), oscValueKindCount);
}

TEST(OSCSerialization, TheTagWalkDecodesRunsAndReportsEachFailure) {
    const auto& shared = OSCSerialization::shared();
    const Bytes data = bytes({0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0, 3});
    PassiveDataReader reader(data);
    OSCValueDecoder decoder{reader, shared};
    std::vector<OSCValue> values;
    std::size_t index = 0;
    const std::string_view tags = "[ii]i";
    shared.decodeValue(tags, index, decoder, values);
    EXPECT_EQ(index, 4u);  // the array used four tags
    shared.decodeValue(tags, index, decoder, values);
    EXPECT_EQ(index, 5u);
    EXPECT_EQ(values, (std::vector<OSCValue>{OSCArrayValue{{1, 2}}, 3}));
    EXPECT_EQ(reader.readOffset(), 12);

    EXPECT_EQ(walkFailure(shared, "x"), "No concrete type found to decode OSC type tag: x");
    EXPECT_EQ(walkFailure(shared, "[ii", bytes({0, 0, 0, 1, 0, 0, 0, 2})),
              "Array termination tag ']' was not found.");

    OSCSerialization custom;
    custom.registerKind(
        {OSCValueKind::int32,
         OSCValueTagIdentity::atomic('q'),
         {},
         OSCValueVariableDecoder{[](char, OSCValueDecoder&, OSCValue&) { return true; }}});
    custom.registerKind({OSCValueKind::int32,
                         OSCValueTagIdentity::atomic('z'),
                         {},
                         OSCValueAtomicDecoder{[](OSCValueDecoder&, OSCValue&) { return false; }}});
    custom.registerKind({OSCValueKind::int32, OSCValueTagIdentity::atomic('e'), {}, {}});
    EXPECT_EQ(walkFailure(custom, "q"), "No decoder is implemented for OSC type tag: q");
    EXPECT_EQ(walkFailure(custom, "z"), "No decoder found to decode OSC type tag: z");
    EXPECT_EQ(walkFailure(custom, "e"), "No concrete type found to decode OSC type tag: e");
}

TEST(OSCSerialization, EncodingNeedsAnEncoderThatFitsTheIdentity) {
    const auto encodeFailure = [](const OSCSerialization& serialization, const OSCValue& value) {
        OSCValueEncoder encoder(serialization);
        try {
            serialization.encodeValue(value, encoder);
        } catch (const OSCEncodeError& error) {
            return std::make_pair(error.errorCase(), std::string(error.what()));
        }
        return std::make_pair(OSCEncodeError::Case::general, std::string("encoded"));
    };
    EXPECT_EQ(encodeFailure(OSCSerialization(), OSCValue(1)),
              std::make_pair(OSCEncodeError::Case::general,
                             std::string("No encoder is registered for OSC value kind: Int32")));
    OSCSerialization mismatched;
    mismatched.registerKind(
        {OSCValueKind::int32,
         OSCValueTagIdentity::atomic('i'),
         OSCValueVariableEncoder{[](const OSCValue&, OSCValueEncoder&) { return 'i'; }},
         {}});
    EXPECT_EQ(encodeFailure(mismatched, OSCValue(1)).first,
              OSCEncodeError::Case::unexpectedEncoder);

    // Measuring counts what writing then puts out.
    const auto& shared = OSCSerialization::shared();
    const OSCValue value = OSCArrayValue{{OSCBlob{1, 2, 3}, true, std::string("abcd")}};
    OSCValueEncoder measure(shared);
    shared.encodeValue(value, measure);
    EXPECT_EQ(measure.tagCount(), 5u);                   // [ b T s ]
    EXPECT_EQ(measure.argumentByteCount(), 4u + 4 + 8);  // blob word + data + "abcd" chunk
    Bytes tags(5), arguments(16);
    OSCValueEncoder writer(shared, tags.data(), arguments.data());
    shared.encodeValue(value, writer);
    EXPECT_EQ(tags, bytes({"[bTs]"}));
    EXPECT_EQ(arguments, bytes({0, 0, 0, 3, 1, 2, 3, 0, "abcd", 0, 0, 0, 0}));
}

TEST(OSCValue, KindsCompareAndHashByContent) {
    const std::vector<OSCValue> distinct = {
        OSCBlob{1},
        1.0f,
        1,
        std::string("1"),
        true,
        char32_t{'1'},
        1.0,
        std::int64_t{1},
        OSCArrayValue{{1}},
        OSCImpulseValue{},
        OSCMIDIValue{0, 0, 0, 1},
        OSCNullValue{},
        OSCStringAltValue{"1"},
        OSCTimeTag{0, 1},
    };
    for (std::size_t i = 0; i < distinct.size(); ++i) {
        EXPECT_EQ(kindOf(distinct[i]), static_cast<OSCValueKind>(i));
        for (std::size_t j = 0; j < distinct.size(); ++j) {
            EXPECT_EQ(distinct[i] == distinct[j], i == j) << i << " " << j;
        }
        const OSCValue copy = distinct[i];
        EXPECT_EQ(std::hash<OSCValue>{}(copy), std::hash<OSCValue>{}(distinct[i]));
    }
    EXPECT_EQ(OSCValue(0.0f), OSCValue(-0.0f));
    EXPECT_EQ(std::hash<OSCValue>{}(OSCValue(0.0f)), std::hash<OSCValue>{}(OSCValue(-0.0f)));
    EXPECT_EQ(printedForm(1e21), "1e+21");
    EXPECT_EQ(printedForm(-2.0f), "-2.0");
    EXPECT_EQ(printedForm(char32_t{0x1F600}), "\xF0\x9F\x98\x80");
}

}  // namespace
}  // namespace kavrin
