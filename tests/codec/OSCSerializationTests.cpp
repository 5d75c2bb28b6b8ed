#include "osc/codec/OSCSerialization.hpp"

#include "osc/codec/OSCError.hpp"
#include "tests/codec/CodecTestSupport.hpp"

namespace kavrin {

// The registry is closed to other code; a test builds one from a table of its own.
namespace detail {
struct OSCSerializationAccess {
    static OSCSerialization make(std::span<const OSCTypeTag> table) {
        return OSCSerialization(table);
    }
};
}  // namespace detail

namespace {

using test::bytes;
using test::Bytes;

TEST(OSCSerialization, TheSharedRegistryOwnsEveryBuiltInTagOnce) {
    const auto& shared = OSCSerialization::shared();
    ASSERT_EQ(shared.tagIdentities().size(), oscValueKindCount);
    for (std::size_t i = 0; i < oscValueKindCount; ++i) {
        EXPECT_EQ(shared.tagIdentities()[i].kind, static_cast<OSCValueKind>(i));
    }

    // Built from a table, the registry refuses a second kind's claim on a tag.
    std::vector<OSCTypeTag> table(oscTypeTags.begin(), oscTypeTags.end());
    table.push_back({'i', OSCValueKind::int64, OSCArgumentFormat::int64});
    EXPECT_EQ(test::thrown<OSCSerializationError>(
                  [&] { detail::OSCSerializationAccess::make(table); },
                  OSCSerializationError::Case::tagAlreadyRegistered),
              "OSC type tag is already registered: i");
}

TEST(OSCSerialization, EncodingMeasuresThenWritesWhatTheTableSays) {
    // A kind the table leaves out has no encoder.
    std::vector<OSCTypeTag> table;
    for (const auto& entry : oscTypeTags) {
        if (entry.kind != OSCValueKind::int32) table.push_back(entry);
    }
    const auto withoutInt32 = detail::OSCSerializationAccess::make(table);
    OSCValueEncoder encoder(withoutInt32);
    EXPECT_EQ(test::thrown<OSCEncodeError>([&] { withoutInt32.encodeValue(OSCValue(1), encoder); },
                                           OSCEncodeError::Case::general),
              "No encoder is registered for OSC value kind: Int32");

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
