#include "osc/stream/OSCDeframer.hpp"

#include <functional>
#include <random>

namespace kavrin {
namespace {

using Bytes = std::vector<std::uint8_t>;

// Feeds `stream` in pieces of the sizes `split` gives (all at once without) and returns the
// packets found.
std::vector<Bytes> deframe(OSCDeframer& deframer, const Bytes& stream,
                           const std::function<std::size_t()>& split = {}) {
    std::vector<Bytes> packets;
    for (std::size_t at = 0; at < stream.size();) {
        const std::size_t size = std::min(split ? split() : stream.size(), stream.size() - at);
        deframer.feed(std::span(stream).subspan(at, size),
                      [&](std::span<const std::uint8_t> packet) {
                          packets.emplace_back(packet.begin(), packet.end());
                      });
        at += size;
    }
    return packets;
}

std::string failure(OSCFraming framing, const Bytes& stream, std::size_t maximum) {
    OSCDeframer deframer(framing, maximum);
    try {
        deframer.feed(stream, [](auto) {});
    } catch (const OSCFramingError& error) {
        EXPECT_THROW(deframer.feed(Bytes{0}, [](auto) {}), OSCFramingError) << "no reading after";
        return error.what();
    }
    return "read";
}

TEST(OSCDeframer, GivesBackEveryPacketWhateverPiecesTheStreamArrivesIn) {
    // Packets holding the framing's own special bytes, and one the size of the maximum.
    const std::vector<Bytes> packets = {
        {'/', 'a', 0, 0, ',', 0, 0, 0},
        {0xC0, 0xDB, 0xDC, 0xDD, 0xC0, 0xC0, 0xDB, 0xDB},
        Bytes(4096, 0xC0),
        {0, 0, 0, 0},
    };
    std::mt19937 random(7);
    for (const auto framing : {OSCFraming::lengthPrefixed, OSCFraming::slip}) {
        Bytes stream;
        for (const auto& packet : packets) appendFrame(framing, packet, stream);
        for (const std::size_t largest :
             {std::size_t{1}, std::size_t{3}, std::size_t{700}, stream.size()}) {
            OSCDeframer deframer(framing, 4096);
            const auto found = deframe(deframer, stream, [&] { return 1 + random() % largest; });
            EXPECT_EQ(found, packets) << "pieces up to " << largest;
            EXPECT_FALSE(deframer.isMidFrame());
        }
    }
}

TEST(OSCDeframer, LengthPrefixesThatBreakTheStreamAreRefused) {
    EXPECT_EQ(failure(OSCFraming::lengthPrefixed, {0xFF, 0xFF, 0xFF, 0xFB}, 64),
              "Frame size prefix is negative: -5");
    EXPECT_EQ(failure(OSCFraming::lengthPrefixed, {0, 0, 0, 65}, 64),
              "Frame size 65 exceeds the maximum of 64 bytes.");
    // A size of 0 carries nothing; a stream that stops inside a packet is mid-frame.
    OSCDeframer deframer(OSCFraming::lengthPrefixed, 64);
    EXPECT_TRUE(deframe(deframer, {0, 0, 0, 0, 0, 0}).empty());
    EXPECT_TRUE(deframer.isMidFrame());
    EXPECT_TRUE(deframe(deframer, {0, 4, 1, 2}).empty());
    EXPECT_EQ(deframe(deframer, {3, 4}), std::vector<Bytes>{Bytes({1, 2, 3, 4})});
    EXPECT_FALSE(deframer.isMidFrame());
}

TEST(OSCDeframer, SlipBoundsAFrameWithoutEndAndReadsEscapesLeniently) {
    Bytes endless(65, 'x');
    endless.insert(endless.begin(), 0xC0);
    EXPECT_EQ(failure(OSCFraming::slip, endless, 64),
              "SLIP frame exceeds the maximum of 64 bytes without an END byte.");
    // Exactly the maximum is fine; empty frames vanish; ESC before another byte is that byte.
    Bytes stream = {0xC0, 0xC0, 0xC0};
    stream.insert(stream.end(), 64, 'y');
    stream.insert(stream.end(), {0xC0, 0xDB, 'q', 0xDB, 0xDC, 0xC0});
    OSCDeframer deframer(OSCFraming::slip, 64);
    EXPECT_EQ(deframe(deframer, stream), (std::vector<Bytes>{Bytes(64, 'y'), Bytes({'q', 0xC0})}));
    EXPECT_TRUE(deframe(deframer, {0xDB}).empty());
    EXPECT_TRUE(deframer.isMidFrame()) << "an ESC waits for its byte";
}

}  // namespace
}  // namespace kavrin
