// Decodes arbitrary bytes as a packet; whatever decodes must encode, decode again and encode to
// the same bytes. Bytes are compared rather than packets because a NaN argument never equals
// itself; equal packets must also hash alike.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "osc/codec/OSCError.hpp"
#include "osc/codec/OSCPacket.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::optional<kavrin::OSCPacket> first;
    try {
        first = kavrin::OSCPacket::decode(std::span(data, size));
    } catch (const kavrin::OSCDecodeError&) {
        return 0;
    }
    if (!first) return 0;
    (void)first->description();

    const auto encoded = first->rawData();  // must not throw for anything decoded
    const auto second = kavrin::OSCPacket::decode(encoded);
    if (!second) std::abort();
    if (second->rawData() != encoded) std::abort();
    if (*first == *second &&
        std::hash<kavrin::OSCPacket>{}(*first) != std::hash<kavrin::OSCPacket>{}(*second)) {
        std::abort();
    }
    return 0;
}
