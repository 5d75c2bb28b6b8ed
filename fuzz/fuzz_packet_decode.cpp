// Decodes arbitrary bytes as a packet; whatever decodes must encode, decode again and encode to
// the same bytes. Bytes are compared rather than packets because a NaN argument never equals
// itself; equal packets must also hash alike. The bytes are handed over in a shared buffer that
// only the packet keeps, a copy of the packet outlives it, and a message's values are read
// again after both are gone, so that a value viewing a buffer no longer kept shows as a use
// after free.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <vector>

#include "osc/codec/OSCError.hpp"
#include "osc/codec/OSCPacket.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::optional<kavrin::OSCPacket> decoded;
    try {
        auto buffer = std::make_shared_for_overwrite<std::uint8_t[]>(size);
        if (size > 0) std::memcpy(buffer.get(), data, size);
        decoded = kavrin::OSCPacket::decode(std::move(buffer), size);
    } catch (const kavrin::OSCDecodeError&) {
        return 0;
    }
    if (!decoded) return 0;
    kavrin::OSCValueList values;
    if (const auto* message = std::get_if<kavrin::OSCMessage>(&decoded->base())) {
        values = message->values;
    }
    kavrin::OSCPacket first = *decoded;
    decoded.reset();
    (void)first.description();

    const auto encoded = first.rawData();  // must not throw for anything decoded
    std::vector<std::uint8_t> reused(3, 0xFF);
    first.encode(reused);
    if (reused != encoded) std::abort();
    const auto second = kavrin::OSCPacket::decode(encoded);
    if (!second) std::abort();
    if (second->rawData() != encoded) std::abort();
    if (first == *second &&
        std::hash<kavrin::OSCPacket>{}(first) != std::hash<kavrin::OSCPacket>{}(*second)) {
        std::abort();
    }
    first = kavrin::OSCPacket();
    for (const auto& value : values) (void)kavrin::describe(value);
    return 0;
}
