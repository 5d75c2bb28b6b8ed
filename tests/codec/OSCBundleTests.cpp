#include "osc/codec/OSCBundle.hpp"

#include <pthread.h>

#include <algorithm>
#include <cstdlib>
#include <functional>

#include "osc/codec/OSCError.hpp"
#include "osc/codec/OSCPacket.hpp"
#include "tests/codec/CodecTestSupport.hpp"

namespace kavrin {
namespace {

using test::bytes;
using test::Bytes;

const Bytes emptyBundle = bytes({"#bundle", 0, 0, 0, 0, 0, 0, 0, 0, 1});

TEST(OSCBundleEncoding, KnownBundlesEncodeByteExact) {
    const Bytes encoded = bytes({
        "#bundle", 0,                             // header
        0,         0, 0, 0,    0, 0, 0, 1,        // time tag: immediate
        0,         0, 0, 12,                      // element size
        "/a",      0, 0, ",i", 0, 0, 0, 0, 0, 1,  // the message
        0,         0, 0, 16,                      // a nested empty bundle, with a tag of its own
        "#bundle", 0, 0, 0,    0, 0, 0, 0, 0, 5,
    });
    const OSCBundle bundle(OSCTimeTag::immediate(),
                           {OSCMessage("/a", {1}), OSCBundle(OSCTimeTag{0, 5})});
    EXPECT_EQ(bundle.rawData(), encoded);
    EXPECT_EQ(OSCPacket(bundle).rawData(), encoded);
    EXPECT_EQ(OSCBundle(OSCTimeTag::immediate()).rawData(), emptyBundle);

    // Elements keep views of their own bytes within the datagram, into the bundle's own copy of
    // it rather than the caller's buffer.
    Bytes scratch = encoded;
    const auto decoded = OSCBundle::decode(scratch);
    std::fill(scratch.begin(), scratch.end(), 0);
    EXPECT_EQ(decoded, bundle);
    EXPECT_EQ(std::hash<OSCBundle>{}(decoded), std::hash<OSCBundle>{}(bundle));
    const auto kept = [](const auto& packet) {
        const auto& from = packet.decodedFrom();
        return from ? Bytes(from->begin(), from->end()) : Bytes();
    };
    EXPECT_EQ(kept(std::get<OSCMessage>(decoded.elements[0].base())),
              Bytes(encoded.begin() + 20, encoded.begin() + 32));
    EXPECT_EQ(kept(decoded), encoded);
}

TEST(OSCBundleDecoding, MalformedBundlesFailWithTheirTexts) {
    const struct {
        Bytes data;
        std::string text;
    } cases[] = {
        {bytes({"#bundle", 0, 0, 0, 0, 0}), "Data length too short. (Length is 12)"},
        {bytes({"#bundlX", 0, 0, 0, 0, 0, 0, 0, 0, 1}),
         "Bundle header is not present or is malformed."},
        {bytes({"#bundle", 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0}),
         "Could not convert element size to Int32."},
        {bytes({"#bundle", 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 32, "/a", 0, 0,
                ",",       0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,  0,    0}),
         "Data bytes ended earlier than expected."},
        {bytes({"#bundle", 0, 0, 0, 0, 0, 0, 0, 0, 1, 0xFF, 0xFF, 0xFF, 0xFC}),
         "Data bytes ended earlier than expected."},
        {bytes({"#bundle", 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 4, "abcd"}),
         "Unrecognized bundle element encountered."},
        {bytes({"#bundle", 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0}),
         "Unrecognized bundle element encountered."},
        // A nested element's own error ends the whole decode.
        {bytes({"#bundle", 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 4, "/ab", 0}),
         "Couldn't extract OSC-type chunk."},
        {bytes({"#bundle", 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 3, "/a", 0, 0}),
         "Length not a multiple of 4 bytes."},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(test::thrown<OSCDecodeError>([&] { OSCBundle::decode(c.data); }), c.text);
    }
}

TEST(OSCPacket, ClassifiesByTheFirstBytes) {
    EXPECT_EQ(classifyPacket(bytes({"/a", 0, 0})), OSCObjectType::message);
    EXPECT_EQ(classifyPacket(emptyBundle), OSCObjectType::bundle);
    EXPECT_EQ(classifyPacket(bytes({"abcd"})), std::nullopt);
    EXPECT_EQ(classifyPacket(bytes({"#bundle"})), std::nullopt);  // the header must be whole
    EXPECT_EQ(classifyPacket(bytes({})), std::nullopt);

    EXPECT_EQ(OSCPacket::decode(bytes({"abcd"})), std::nullopt);
    EXPECT_THROW(OSCPacket::decode(bytes({"/a"})), OSCDecodeError);
}

TEST(OSCBundleDescription, ListsElementsOnePerLine) {
    EXPECT_EQ(OSCBundle(OSCTimeTag::immediate()).description(),
              "OSCBundle(timeTag: OSCTimeTag(era: 0, rawValue: 1, immediate))");
    EXPECT_EQ(
        OSCBundle(OSCTimeTag::immediate(), {OSCMessage("/a", {1}), OSCMessage("/b")}).description(),
        "OSCBundle(timeTag: OSCTimeTag(era: 0, rawValue: 1, immediate)) with elements:\n"
        "  OSCMessage(\"/a\") with values:\n  Int32: 1\n  OSCMessage(\"/b\")");
}

// Nested bundles around `inner`, by hand, since the encoder refuses too many levels.
Bytes nestBundles(Bytes inner, int levels) {
    for (int i = 0; i < levels; ++i) {
        const auto size = static_cast<int>(inner.size());  // below 64 KiB
        Bytes outer = bytes({"#bundle", 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, size >> 8, size & 0xFF});
        outer.insert(outer.end(), inner.begin(), inner.end());
        inner = std::move(outer);
    }
    return inner;
}

// A message whose tag string is `depth` nested arrays around one Int32.
Bytes nestedArrayMessage(int depth) {
    Bytes data = bytes({"/a", 0, 0, ","});
    data.insert(data.end(), depth, '[');
    data.push_back('i');
    data.insert(data.end(), depth, ']');
    data.insert(data.end(), 4 - data.size() % 4, 0);
    data.insert(data.end(), {0, 0, 0, 1});
    return data;
}

// Runs `work` on a thread whose stack is `size` bytes, as a datagram handler might have.
void runOnStack(std::size_t size, const std::function<void()>& work) {
    pthread_attr_t attributes;
    ASSERT_EQ(pthread_attr_init(&attributes), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, size), 0);
    pthread_t thread;
    auto body = [](void* argument) -> void* {
        (*static_cast<const std::function<void()>*>(argument))();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, &attributes, body, const_cast<std::function<void()>*>(&work)),
              0);
    pthread_attr_destroy(&attributes);
    ASSERT_EQ(pthread_join(thread, nullptr), 0);
}

#if defined(__SANITIZE_ADDRESS__)
constexpr std::size_t smallStack = 8u << 20;  // instrumented frames are several times larger
#else
constexpr std::size_t smallStack = 1u << 20;
#endif

TEST(OSCPacketNesting, RefusesOverDeepInputAndHandlesTheDeepestAllowedOnASmallStack) {
    const std::string arraysTooDeep = "Array nesting exceeds the maximum depth of 128 levels.";
    const std::string bundlesTooDeep = "Bundle nesting exceeds the maximum depth of 128 levels.";
    std::vector<std::pair<Bytes, std::string>> overDeep = {
        {nestedArrayMessage(129), arraysTooDeep},
        {nestedArrayMessage(32000), arraysTooDeep},  // nearly a whole datagram of brackets
        {nestBundles(emptyBundle, 128), bundlesTooDeep},
        {nestBundles(emptyBundle, 3000), bundlesTooDeep},
    };
    for (const auto& [data, _] : overDeep) ASSERT_LE(data.size(), 65535u);
    runOnStack(smallStack, [&] {
        for (const auto& [data, text] : overDeep) {
            EXPECT_EQ(test::thrown<OSCDecodeError>([&] { OSCPacket::decode(data); }), text);
        }
    });

    // 128 bundles around a message of 128 nested arrays: every limit reached, none passed.
    const Bytes deepest = nestBundles(nestedArrayMessage(128), 128);
    runOnStack(smallStack, [&] {
        auto packet = OSCPacket::decode(deepest);
        ASSERT_TRUE(packet);
        const auto copy = *packet;
        EXPECT_EQ(copy, *packet);
        EXPECT_EQ(packet->rawData(), deepest);
        EXPECT_GT(packet->description().size(), 128u * 20);
        EXPECT_EQ(std::hash<OSCPacket>{}(copy), std::hash<OSCPacket>{}(*packet));
        packet.reset();
    });

    // The encoder refuses what the decoder would refuse.
    OSCValue array = OSCArrayValue{};
    for (int i = 0; i < 128; ++i) array = OSCArrayValue{{array}};
    EXPECT_THROW(OSCMessage("/a", {array}).rawData(), OSCEncodeError);
    OSCBundle bundle;
    for (int i = 0; i < 128; ++i) bundle = OSCBundle(OSCTimeTag{}, {bundle});
    EXPECT_THROW(bundle.rawData(), OSCEncodeError);
}

}  // namespace
}  // namespace kavrin
