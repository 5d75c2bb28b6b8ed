#include "osc/stream/OSCFraming.hpp"

#include <string>
#include <variant>

#include "osc/stream/detail/Slip.hpp"
#include "support/BigEndian.hpp"

namespace kavrin {

void appendFrame(OSCFraming framing, std::span<const std::uint8_t> packet,
                 std::vector<std::uint8_t>& out) {
    if (framing == OSCFraming::lengthPrefixed) {
        const std::size_t at = out.size();
        out.resize(at + 4);
        bigEndian::store32(out.data() + at, static_cast<std::uint32_t>(packet.size()));
        out.insert(out.end(), packet.begin(), packet.end());
        return;
    }
    // An END before the packet as well as after it: a receiver that joins in the middle of a
    // stream, or met line noise, then loses at most the packet in progress.
    out.reserve(out.size() + packet.size() + 2);
    out.push_back(slip::end);
    for (const std::uint8_t byte : packet) {
        if (byte == slip::end) {
            out.insert(out.end(), {slip::escape, slip::escapedEnd});
        } else if (byte == slip::escape) {
            out.insert(out.end(), {slip::escape, slip::escapedEscape});
        } else {
            out.push_back(byte);
        }
    }
    out.push_back(slip::end);
}

std::vector<std::uint8_t> framePacket(OSCFraming framing, const OSCPacket& packet,
                                      std::size_t maximumFrame, OSCTextPolicy policy) {
    const std::size_t size =
        std::visit([policy](const auto& p) { return p.encodedSize(policy); }, packet.base());
    if (size > maximumFrame) {
        throw OSCFramingError("Packet of " + std::to_string(size) +
                              " bytes exceeds the maximum frame of " +
                              std::to_string(maximumFrame) + " bytes.");
    }
    // Length-prefixed: encoded in place behind its size, with no copy.
    if (framing == OSCFraming::lengthPrefixed) {
        std::vector<std::uint8_t> out(4 + size);  // zeroed, as encodeInto wants it
        bigEndian::store32(out.data(), static_cast<std::uint32_t>(size));
        std::visit([&](const auto& p) { p.encodeInto(out.data() + 4, policy); }, packet.base());
        return out;
    }
    // SLIP escapes the encoding into the frame: encoded first into a buffer this thread keeps,
    // so that the frame is the one allocation. A rare large packet's room is not kept.
    constexpr std::size_t keptRoom = 64 * 1024;
    thread_local std::vector<std::uint8_t> encoded;
    packet.encode(encoded, policy);
    std::vector<std::uint8_t> out;
    appendFrame(framing, encoded, out);
    if (encoded.capacity() > keptRoom) encoded = {};
    return out;
}

}  // namespace kavrin
