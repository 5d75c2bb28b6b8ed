#include "osc/stream/OSCFraming.hpp"

#include "osc/stream/detail/Slip.hpp"

namespace kavrin {

void appendFrame(OSCFraming framing, std::span<const std::uint8_t> packet,
                 std::vector<std::uint8_t>& out) {
    if (framing == OSCFraming::lengthPrefixed) {
        const auto size = static_cast<std::uint32_t>(packet.size());
        out.insert(out.end(),
                   {static_cast<std::uint8_t>(size >> 24), static_cast<std::uint8_t>(size >> 16),
                    static_cast<std::uint8_t>(size >> 8), static_cast<std::uint8_t>(size)});
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

}  // namespace kavrin
