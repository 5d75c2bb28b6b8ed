#include "osc/codec/OSCMessage.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

#include "osc/codec/OSCError.hpp"
#include "osc/codec/OSCMessageView.hpp"
#include "osc/codec/OSCPacketView.hpp"
#include "osc/codec/OSCPacket.hpp"
#include "tests/codec/CodecTestSupport.hpp"
#include "tests/AllocationCount.hpp"
#include "tests/codec/ViewAgreement.hpp"

namespace kavrin {
namespace {

using test::bytes;
using test::Bytes;

std::string decodeFailure(const Bytes& data) {
    return test::thrown<OSCDecodeError>([&] { OSCMessage::decode(data); },
                                        OSCDecodeError::Case::malformed);
}

TEST(OSCMessageEncoding, KnownMessagesEncodeByteExact) {
    // "/eos" fills a word, so a whole word of zeros follows; no values: the tags are ",".
    EXPECT_EQ(OSCMessage("/eos").rawData(), bytes({"/eos", 0, 0, 0, 0, ",", 0, 0, 0}));
    // clang-format off
    const Bytes typical = bytes({
        "/mixer/ch/12/fader/level", 0, 0, 0, 0,  // 24 characters + a word of zeros
        ",ifs", 0, 0, 0, 0,                      // 4 tags + a word of zeros
        0, 0, 0, 12,                             // i 12
        0x3F, 0x40, 0, 0,                        // f 0.75
        "main", 0, 0, 0, 0});                    // s "main"
    // clang-format on
    const OSCMessage message("/mixer/ch/12/fader/level", 12, 0.75f, "main");
    EXPECT_EQ(message.rawData(), typical);
    EXPECT_EQ(message.encodedSize(), 52u);

    // clang-format off
    const Bytes kinds = bytes({
        "/k", 0, 0,                                      // address
        ",TF[i[]]bmNIhSct", 0, 0, 0, 0,                  // 16 tags + a word of zeros
        0, 0, 0, 1,                                      // array element i 1
        0, 0, 0, 5, 1, 2, 3, 4, 5, 0, 0, 0,              // blob: length 5, padded
        0x01, 0x90, 0x3C, 0x7F,                          // MIDI port, status, data1, data2
        0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE,  // h -2
        "ab", 0, 0,                                      // S "ab"
        0, 0, 0, 'A',                                    // c 'A'
        0, 0, 0, 0, 0, 0, 0, 1});                        // t immediate
    // clang-format on
    const OSCMessage mixed(
        "/k", {true, false, OSCArrayValue{{1, OSCArrayValue{}}}, OSCBlob{1, 2, 3, 4, 5},
               OSCMIDIValue{1, 0x90, 60, 127}, OSCNullValue{}, OSCImpulseValue{}, std::int64_t{-2},
               OSCStringAltValue{"ab"}, char32_t{'A'}, OSCTimeTag::immediate()});
    EXPECT_EQ(mixed.rawData(), kinds);
    EXPECT_EQ(OSCMessage::decode(kinds), mixed);
}

// ascii, the default, keeps strings ASCII both ways. utf8 lets well-formed UTF-8 through in s
// and S, never in the address or the tags, and refuses the rest with the ASCII text.
TEST(OSCMessageText, StringsHoldWhatTheTextPolicyAllows) {
    const OSCMessage message(
        "/t", {std::string("caf\xC3\xA9"), std::string("a\0b", 3), OSCStringAltValue{"\xC3\xBC"},
               std::string("bad\xFF"), OSCArrayValue{{std::string("w\xC3\xB6rld")}}});
    EXPECT_EQ(OSCMessage::decode(message.rawData()),
              OSCMessage("/t", {std::string("cafe"), std::string("ab"), OSCStringAltValue{"u"},
                                std::string("bad"), OSCArrayValue{{std::string("world")}}}));
    const auto utf8 = message.rawData(OSCTextPolicy::utf8);
    EXPECT_EQ(OSCMessage::decode(utf8, OSCTextPolicy::utf8),
              OSCMessage("/t", {std::string("caf\xC3\xA9"), std::string("ab"),
                                OSCStringAltValue{"\xC3\xBC"}, std::string("bad"),
                                OSCArrayValue{{std::string("w\xC3\xB6rld")}}}));

    const std::string notASCII =
        "Failed to form valid ASCII string from 4-byte aligned null-terminated ASCII string "
        "chunk. Non-ASCII characters may be present or the data is malformed.";
    const char* umlaut = "w\xC3\xB6rld";
    const std::string badAddress = "Address pattern string could not be parsed.";
    const std::string badTags = "Couldn't extract OSC-type chunk.";
    const struct {
        Bytes data;
        std::string ascii;  // the error under ascii
        std::string utf8;   // under utf8: the string's printed form, or the error
    } cases[] = {
        {bytes({"/a", 0, 0, ",s", 0, 0, umlaut, 0, 0}), notASCII, umlaut},
        {bytes({"/a", 0, 0, ",S", 0, 0, "\xF0\x9F\x91\x8D", 0, 0, 0, 0}), notASCII,
         "\xF0\x9F\x91\x8D"},
        {bytes({"/a", 0, 0, ",s", 0, 0, "\xC0\xAF", 0, 0}), notASCII, notASCII},   // overlong
        {bytes({"/a", 0, 0, ",s", 0, 0, "\xED\xA0\x80", 0}), notASCII, notASCII},  // surrogate
        {bytes({"/\xC3\xA4", 0, ",", 0, 0, 0}), badAddress, badAddress},
        {bytes({"/a", 0, 0, ",\xC3\xA4", 0}), badTags, badTags},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(decodeFailure(c.data), c.ascii);
        try {
            EXPECT_EQ(printedForm(OSCMessage::decode(c.data, OSCTextPolicy::utf8).values.at(0)),
                      c.utf8);
        } catch (const OSCDecodeError& error) {
            EXPECT_EQ(error.what(), c.utf8);
        }
        EXPECT_EQ(test::viewDisagreement(c.data), "");  // under both policies
    }
    // Within a bundle, through the views as through the owning decoders.
    const OSCBundle bundle({0, 1}, {OSCMessage("/b", {std::string(umlaut)})});
    const auto bundled = bundle.rawData(OSCTextPolicy::utf8);
    EXPECT_THROW(OSCPacket::decode(bundled), OSCDecodeError);
    EXPECT_EQ(OSCPacket::decode(bundled, OSCTextPolicy::utf8), OSCPacket(bundle));
    EXPECT_EQ(OSCPacketView::decode(bundled, OSCTextPolicy::utf8)->packet(), OSCPacket(bundle));
    EXPECT_EQ(test::viewDisagreement(bundled), "");
}

TEST(OSCMessageDecoding, EveryKindRoundTripsAndKeepsItsBytes) {
    // The kept bytes and values are the message's own, whatever becomes of the caller's buffer:
    // a shared copy, or inside a short message (whose long address, text or blob then has one).
    const auto message = test::everyKind();
    EXPECT_FALSE(message.decodedFrom().has_value());
    for (const auto& original :
         {message, OSCMessage("/" + std::string(48, 'a')), OSCMessage("/a", {std::string(33, 's')}),
          OSCMessage("/a", {OSCBlob(Bytes(33, 7))})}) {
        Bytes scratch = original.rawData();
        const auto kept = OSCMessage::decode(scratch);
        const auto packet = OSCPacket::decode(scratch);
        std::fill(scratch.begin(), scratch.end(), 0);
        EXPECT_EQ(kept, original);
        EXPECT_EQ(std::hash<OSCMessage>{}(kept), std::hash<OSCMessage>{}(original));
        EXPECT_EQ(*packet, OSCPacket(original));
        ASSERT_TRUE(kept.decodedFrom().has_value());
        EXPECT_EQ(Bytes(kept.decodedFrom()->begin(), kept.decodedFrom()->end()),
                  original.rawData());
        EXPECT_EQ(kept.rawData(), original.rawData());
    }

    // Extremes survive unchanged, NaN bit for bit.
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const OSCMessage extremes(
        "/x", {std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int64_t>::max(),
               -0.0, nan, std::numeric_limits<double>::infinity()});
    const auto back = OSCMessage::decode(extremes.rawData());
    EXPECT_EQ(back.rawData(), extremes.rawData());
    EXPECT_TRUE(std::isnan(std::get<float>(back.values[3])));
    EXPECT_TRUE(std::signbit(std::get<double>(back.values[2])));
}

TEST(OSCMessageAllocation, TheUsualMessageIsBuiltEncodedAndDecodedWithoutAllocating) {
    // The largest usual message: a 48-byte address, 12 values, 32-byte strings and blob.
    const std::string address = "/" + std::string(47, 'a');
    const std::string text(32, 't');
    const std::vector<std::uint8_t> blob(32, 0xB1);
    std::vector<std::uint8_t> buffer;
    const auto build = [&] {
        return OSCMessage(address, 1, 2.5f, text, OSCBlob(blob), true, 3.0, std::int64_t{4},
                          OSCStringAltValue{text}, OSCNullValue{}, U'c', OSCImpulseValue{},
                          OSCTimeTag{0, 1});
    };
    build().encode(buffer);  // sizes the buffer, and makes the codec's tables
    const Bytes encoded = buffer;

    std::size_t before = test::allocationCount();
    build().encode(buffer);
    EXPECT_EQ(test::allocationCount(), before) << "building and encoding";
    EXPECT_EQ(buffer, encoded);

    // From a shared buffer the caller hands over, which the message keeps as its bytes; a
    // long string shares it too.
    const OSCMessage longText("/l", {OSCString(std::string(100, 'x'))});
    for (const auto& expected : {build(), longText}) {
        const Bytes bytes = expected.rawData();
        const auto shared = std::make_shared_for_overwrite<std::uint8_t[]>(bytes.size());
        std::copy(bytes.begin(), bytes.end(), shared.get());
        before = test::allocationCount();
        const auto message = OSCMessage::decode(shared, bytes.size());
        const auto packet = OSCPacket::decode(shared, bytes.size());
        EXPECT_EQ(test::allocationCount(), before) << "decoding " << expected.description();
        EXPECT_EQ(message, expected);
        EXPECT_EQ(std::get<OSCMessage>(packet->base()), expected);
        EXPECT_EQ(message.decodedFrom()->data(), shared.get());
    }
}

TEST(OSCMessageDecoding, TagStringsAreLenientAboutCommas) {
    const Bytes noComma = bytes({"/a", 0, 0, "if", 0, 0, /* i */ 0, 0, 0, 3, 0x3F, 0x80, 0, 0});
    const Bytes midComma = bytes({"/a", 0, 0, "i,f", 0, 0, 0, 0, 3, 0x3F, 0x80, 0, 0});
    const OSCMessage expected("/a", {3, 1.0f});
    for (const auto& data : {noComma, midComma}) {
        EXPECT_EQ(OSCMessage::decode(data), expected);
        EXPECT_EQ(OSCMessageView(data).message(), expected);
    }
    // An empty tag string and trailing bytes after the last argument are accepted.
    EXPECT_EQ(OSCMessage::decode(bytes({"/a", 0, 0, 0, 0, 0, 0, 1, 2, 3, 4})), OSCMessage("/a"));
    const auto nested = OSCMessage::decode(
        bytes({"/a", 0, 0, ",[i[f]s]", 0, 0, 0, 0, 0, 0, 0, 1, 0x3F, 0x80, 0, 0, "s", 0, 0, 0}));
    EXPECT_EQ(nested,
              OSCMessage("/a", {OSCArrayValue{{1, OSCArrayValue{{1.0f}}, std::string("s")}}}));
    EXPECT_EQ(
        OSCMessage::decode(bytes({"/a", 0, 0, ",[ii]i", 0, 0, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0, 3})),
        OSCMessage("/a", {OSCArrayValue{{1, 2}}, 3}));
}

TEST(OSCMessageDecoding, MalformedInputFailsWithTheFirstApplicableText) {
    const struct {
        Bytes data;
        std::string text;
    } cases[] = {
        {bytes({"/abc", 0}), "Length not a multiple of 4 bytes."},
        {bytes({"#bundle", 0, 0, 0, 0, 0, 0, 0, 0, 1}), "Does not start with an address pattern."},
        {bytes({}), "Does not start with an address pattern."},
        {bytes({"/ab", 0xC3, 0, 0, 0, 0}), "Address pattern string could not be parsed."},
        {bytes({"/abc"}), "Address pattern string could not be parsed."},
        {bytes({"/ab", 0}), "Couldn't extract OSC-type chunk."},
        {bytes({"/ab", 0, ",i", 0, 'x'}), "Couldn't extract OSC-type chunk."},
        {bytes({"/ab", 0, ",x", 0, 0}), "No concrete type found to decode OSC type tag: x"},
        {bytes({"/ab", 0, ",i]", 0, 0, 0, 0, 1}),
         "No concrete type found to decode OSC type tag: ]"},
        {bytes({"/ab", 0, ",[ii", 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 2}),
         "Array termination tag ']' was not found."},
        {bytes({"/ab", 0, ",[,]", 0, 0, 0, 0}), "No concrete type found to decode OSC type tag: ,"},
        {bytes({"/ab", 0, ",c", 0, 0, 0, 0, 0xD8, 0}),
         "Character value couldn't be read. Could not form a Unicode scalar from the value."},
        {bytes({"/ab", 0, ",c", 0, 0, 0, 0x11, 0, 0}),
         "Character value couldn't be read. Could not form a Unicode scalar from the value."},
        {bytes({"/ab", 0, ",i", 0, 0}), "Not enough bytes while reading Int32 data chunk."},
        // MIDI is four bytes, not a number: the byte read's own text.
        {bytes({"/m", 0, 0, ",m", 0, 0}),
         "Not enough bytes remain in data stream. Attempted to read 4 bytes but only 0 bytes "
         "bytes remain."},
        {bytes({"/m", 0, 0, ",[m]", 0, 0, 0, 0}),
         "Not enough bytes remain in data stream. Attempted to read 4 bytes but only 0 bytes "
         "bytes remain."},
        {bytes({"/ab", 0, ",d", 0, 0, 0, 0, 0, 0}),
         "Not enough bytes while reading Double data chunk."},
        {bytes({"/ab", 0, ",s", 0, 0}),
         "Not enough bytes in 4-byte aligned null-terminated data chunk."},
        {bytes({"/ab", 0, ",b", 0, 0, 0, 0, 0, 8, 1, 2, 3, 4}),
         "Not enough bytes in 4-byte aligned null-terminated blob data chunk."},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(decodeFailure(c.data), c.text);
        EXPECT_EQ(test::viewDisagreement(c.data), "");  // the views and the registry agree
    }
}

TEST(OSCMessageDescription, NamesEachValueKindAndKeepsEachOnItsLine) {
    EXPECT_EQ(OSCMessage("/ping").description(), "OSCMessage(\"/ping\")");
    EXPECT_EQ(OSCMessage("/a", {1, std::string("hello"), true, OSCBlob{1, 2, 3, 4}, 1.0f, 0.1,
                                std::int64_t{5}, char32_t{'A'}})
                  .description(),
              "OSCMessage(\"/a\") with values:\n  Int32: 1\n  String: hello\n  Bool: true\n"
              "  Blob: 4 bytes\n  Float32: 1.0\n  Double: 0.1\n  Int64: 5\n  Character: A");
    EXPECT_EQ(OSCMessage("/b", {OSCArrayValue{{1, 2.5f}}, OSCImpulseValue{}, OSCNullValue{},
                                OSCMIDIValue{1, 0x90, 60, 127}, OSCStringAltValue{"s"},
                                OSCTimeTag::immediate()})
                  .description(),
              "OSCMessage(\"/b\") with values:\n  OSCArrayValue: [Int32: 1, Float32: 2.5]\n"
              "  OSCImpulseValue: impulse\n  OSCNullValue: null\n"
              "  OSCMIDIValue: portID 1, status 0x90, data1 60, data2 127\n"
              "  OSCStringAltValue: s\n  OSCTimeTag: OSCTimeTag(era: 0, rawValue: 1, immediate)");
    // The joined lines are trimmed at both ends.
    EXPECT_EQ(OSCMessage("/c", {std::string(" x ")}).description(),
              "OSCMessage(\"/c\") with values:\n  String:  x");

    // Controls, separators and bytes that are no UTF-8 are escaped, the backslash doubled so
    // that escapes stay unambiguous; printable text, non-ASCII letters included, is as it was.
    const struct {
        OSCValue value;
        std::string printed;
    } cases[] = {
        {std::string("a\tb\nc\r"), "a\\tb\\nc\\r"},
        {std::string("bell\x07 del\x7F nul") + '\0', "bell\\x07 del\\x7F nul\\x00"},
        {std::string("back\\slash"), "back\\\\slash"},
        {std::string("caf\xC3\xA9 \xC2\x85 \xE2\x80\xA8 \xE2\x80\xA9"),
         "caf\xC3\xA9 \\u0085 \\u2028 \\u2029"},
        {std::string("bad \xFF\xC3 end"), "bad \\xFF\\xC3 end"},
        {OSCStringAltValue{"alt\n"}, "alt\\n"},
        {char32_t{0x0A}, "\\n"},
        {char32_t{0x2029}, "\\u2029"},
        {char32_t{0xE9}, "\xC3\xA9"},
        {OSCArrayValue{{std::string("in\narray")}}, "[String: in\\narray]"},
    };
    for (const auto& c : cases) EXPECT_EQ(printedForm(c.value), c.printed);
    // The address keeps its raw form.
    EXPECT_EQ(OSCMessage("/a\tb", {char32_t{0x0A}}).description(),
              "OSCMessage(\"/a\tb\") with values:\n  Character: \\n");
}

TEST(OSCValueMask, ExtractsConvertsAndReportsMisfits) {
    const OSCMessage message("/m", {12, 0.75f, std::string("main")});
    EXPECT_EQ((message.masked<std::int32_t, float, std::string>()),
              std::tuple(12, 0.75f, std::string("main")));
    // Numbers convert between i, h, f and d; int32 saturates.
    const auto numbers = OSCMessage("/n", {2.9f, 7, -1e20, std::int64_t{1} << 40})
                             .masked<std::int32_t, double, std::int32_t, OSCNumberValue>();
    EXPECT_EQ(std::get<0>(numbers), 2);
    EXPECT_EQ(std::get<1>(numbers), 7.0);
    EXPECT_EQ(std::get<2>(numbers), std::numeric_limits<std::int32_t>::min());
    EXPECT_EQ(std::get<3>(numbers).base.int64Value(), std::int64_t{1} << 40);
    // Trailing optionals take what is there.
    EXPECT_EQ((OSCMessage("/o", {1})
                   .masked<std::int32_t, std::optional<std::string>, std::optional<bool>>()),
              std::tuple(1, std::optional<std::string>(), std::optional<bool>()));
    EXPECT_EQ((OSCMessage("/o", {1, std::string("x")})
                   .masked<std::int32_t, std::optional<std::string>>()),
              std::make_tuple(1, std::optional<std::string>("x")));

    using Case = OSCValueMaskError::Case;
    const auto failure = [](auto extract, std::optional<Case> errorCase = std::nullopt) {
        return test::thrown<OSCValueMaskError>(extract, errorCase);
    };
    EXPECT_EQ(failure([&] { message.masked<std::int32_t, float>(); }, Case::wrongCount),
              "Expected 2 values but found 3.");
    EXPECT_EQ(failure([] { OSCMessage("/e").masked<std::int32_t, std::optional<float>>(); }),
              "Expected 1 to 2 values but found 0.");
    EXPECT_EQ(failure([&] { message.masked<std::int32_t, float, OSCBlob>(); }, Case::typeMismatch),
              "Value at index 2 is String but Blob was expected.");
    EXPECT_EQ(failure([&] { message.masked<OSCValue, std::int32_t, std::int32_t>(); }),
              "Value at index 2 is String but Int32 (or any number) was expected.");
}

}  // namespace
}  // namespace kavrin
