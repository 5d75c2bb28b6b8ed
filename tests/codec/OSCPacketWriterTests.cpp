#include "osc/codec/OSCPacketWriter.hpp"

#include "osc/codec/OSCBundle.hpp"
#include "osc/codec/OSCError.hpp"
#include "osc/codec/OSCPacket.hpp"
#include "tests/AllocationCount.hpp"
#include "tests/codec/CodecTestSupport.hpp"

namespace kavrin {
namespace {

using test::Bytes;

// Writes test::everyKind().
void writeEveryKind(OSCPacketWriter& writer) {
    static const std::uint8_t blob[5] = {1, 2, 3, 4, 5};
    writer.beginMessage("/every/kind").blob(blob).float32(1.5f).int32(-7).string("text");
    writer.boolean(true).boolean(false).character(char32_t{0x1F600}).float64(2.25);
    writer.int64(-1234567890123).beginArray().int32(1).beginArray().string("").endArray();
    writer.beginArray().endArray().endArray().impulse().midi({1, 0x90, 60, 127}).null();
    writer.stringAlt("alt").timeTag({0, 0x0102030405060708}).endMessage();
}

TEST(OSCPacketWriter, WritesTheBytesOfTheOwningEncoderWithoutAllocating) {
    std::vector<std::uint8_t> buffer(512);
    {
        OSCPacketWriter writer(buffer);
        const std::size_t before = test::allocationCount();
        writeEveryKind(writer);
        EXPECT_EQ(test::allocationCount(), before);
        EXPECT_TRUE(writer.isComplete());
        EXPECT_EQ(Bytes(writer.bytes().begin(), writer.bytes().end()), test::everyKind().rawData());
    }
    // Nested bundles, and text as the owning types write it under each text policy.
    for (const auto policy : {OSCTextPolicy::ascii, OSCTextPolicy::utf8}) {
        OSCPacketWriter writer(buffer, policy);
        writer.beginBundle(OSCTimeTag::immediate()).beginMessage("/a").endMessage();
        writer.beginBundle({0, 5}).beginMessage("/caf\xC3\xA9");
        writer.string(std::string_view("z\xC3\xA9ro\0!", 7)).stringAlt("\xC3\xA9t\xC3\xA9");
        writer.endMessage().endBundle().endBundle();
        const OSCBundle expected(
            OSCTimeTag::immediate(),
            {OSCMessage("/a"),
             OSCBundle({0, 5}, {OSCMessage("/caf\xC3\xA9", {std::string("z\xC3\xA9ro\0!", 7),
                                                            OSCStringAltValue{"\xC3\xA9t\xC3\xA9"}})})});
        EXPECT_EQ(Bytes(writer.bytes().begin(), writer.bytes().end()), expected.rawData(policy));
    }
}

TEST(OSCPacketWriter, FillsABufferToItsLastByteAndRefusesOneByteLess) {
    const Bytes expected = test::everyKind().rawData();
    // An exact fit: the waiting tags meet the arguments and are turned into place.
    Bytes exact(expected.size());
    OSCPacketWriter fits(exact);
    writeEveryKind(fits);
    EXPECT_EQ(exact, expected);

    Bytes short_(expected.size() - 1);
    OSCPacketWriter tooSmall(short_);
    EXPECT_EQ(test::thrown<OSCEncodeError>([&] { writeEveryKind(tooSmall); },
                                           OSCEncodeError::Case::general),
              "The buffer is too small for the OSC packet.");
    EXPECT_THROW(tooSmall.beginMessage("/again"), OSCEncodeError) << "unusable after a failure";
}

TEST(OSCPacketWriter, RefusesCallsOutOfOrderAndNestingBeyondTheLimits) {
    Bytes buffer(8192);
    const auto refused = [&](auto write) {
        OSCPacketWriter writer(buffer);
        return test::thrown<OSCEncodeError>([&] { write(writer); });
    };
    const std::string outOfOrder = "OSC packet written out of order.";
    EXPECT_EQ(refused([](auto& w) { w.int32(1); }), outOfOrder);
    EXPECT_EQ(refused([](auto& w) { w.endMessage(); }), outOfOrder);
    EXPECT_EQ(refused([](auto& w) { w.beginMessage("/a").beginMessage("/b"); }), outOfOrder);
    EXPECT_EQ(refused([](auto& w) { w.beginMessage("/a").endArray(); }), outOfOrder);
    EXPECT_EQ(refused([](auto& w) { w.beginMessage("/a").beginArray().endMessage(); }), outOfOrder);
    EXPECT_EQ(refused([](auto& w) { w.beginMessage("/a").endMessage().beginMessage("/b"); }),
              outOfOrder);
    EXPECT_EQ(refused([](auto& w) { w.beginBundle({}).endMessage(); }), outOfOrder);
    EXPECT_EQ(refused([](auto& w) {
                  for (int i = 0; i <= OSCBundle::maximumDepth; ++i) w.beginBundle({});
              }),
              "Bundle nesting exceeds the maximum depth of 128 levels.");
    EXPECT_EQ(refused([](auto& w) {
                  w.beginMessage("/deep");
                  for (int i = 0; i <= 128; ++i) w.beginArray();
              }),
              "Array nesting exceeds the maximum depth of 128 levels.");
}

}  // namespace
}  // namespace kavrin
