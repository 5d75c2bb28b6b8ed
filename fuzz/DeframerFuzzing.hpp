#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <vector>

#include "osc/stream/OSCDeframer.hpp"

// Shared by the deframer targets: arbitrary bytes, as a stream, must give the same packets and
// the same failure whether they arrive whole or in pieces, no packet may pass the maximum, and
// the packets found, framed again, must deframe to themselves.
namespace kavrin::fuzzing {

using Bytes = std::vector<std::uint8_t>;

struct Outcome {
    std::vector<Bytes> packets;
    bool failed = false;
    friend bool operator==(const Outcome&, const Outcome&) = default;
};

inline Outcome deframe(OSCFraming framing, std::span<const std::uint8_t> stream,
                       std::size_t piece) {
    constexpr std::size_t maximum = 512;  // small, so that the limit is met often
    OSCDeframer deframer(framing, maximum);
    Outcome outcome;
    try {
        for (std::size_t at = 0; at < stream.size(); at += piece) {
            deframer.feed(stream.subspan(at, std::min(piece, stream.size() - at)),
                          [&](std::span<const std::uint8_t> packet) {
                              if (packet.size() > maximum) std::abort();
                              outcome.packets.emplace_back(packet.begin(), packet.end());
                          });
        }
    } catch (const OSCFramingError&) {
        outcome.failed = true;
    }
    return outcome;
}

inline void check(OSCFraming framing, const std::uint8_t* data, std::size_t size) {
    if (size == 0) return;
    const std::size_t piece = 1 + data[0] % 17;
    const std::span<const std::uint8_t> stream(data + 1, size - 1);
    const Outcome whole = deframe(framing, stream, stream.size() + 1);
    if (deframe(framing, stream, piece) != whole) std::abort();
    Bytes again;
    for (const auto& packet : whole.packets) appendFrame(framing, packet, again);
    const Outcome reread = deframe(framing, again, piece);
    if (reread.failed || reread.packets != whole.packets) std::abort();
}

}  // namespace kavrin::fuzzing
