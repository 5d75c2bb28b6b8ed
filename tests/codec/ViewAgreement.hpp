#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "osc/codec/OSCError.hpp"
#include "osc/codec/OSCPacket.hpp"
#include "osc/codec/OSCPacketView.hpp"

// Shared by the codec tests and the view fuzz target: the owning decoders and the view decoders
// must refuse the same bytes with the same error, and read the same values from the rest.
namespace kavrin::test {

// Built from the view's typed reads alone, never through the owning decoder.
inline OSCPacket ownedCopy(const OSCPacketView& view) {
    if (view.isMessage()) {
        const auto& message = view.message();
        std::vector<OSCValue> values;
        for (const auto argument : message) values.push_back(argument.value());
        return OSCMessage(OSCAddressPattern(message.address()), std::move(values));
    }
    OSCBundle bundle(view.bundle().timeTag());
    for (const auto element : view.bundle()) bundle.elements.push_back(ownedCopy(element));
    return bundle;
}

// What one decoder made of some bytes: an error (case and text), nothing, or the packet's bytes
// encoded again (bytes rather than packets, since a NaN never equals itself).
template <class Decode>
std::string outcome(Decode decode) {
    try {
        const auto encoded = decode();
        return encoded ? "decoded " + std::string(encoded->begin(), encoded->end()) : "nothing";
    } catch (const OSCDecodeError& error) {
        return "error " + std::to_string(static_cast<int>(error.errorCase())) + " " + error.what();
    }
}

// Empty when both decoders agree about `bytes`, otherwise what each made of them.
inline std::string viewDisagreement(std::span<const std::uint8_t> bytes) {
    using Encoded = std::optional<std::vector<std::uint8_t>>;
    const auto owning = outcome([&]() -> Encoded {
        const auto packet = OSCPacket::decode(bytes);
        if (!packet) return std::nullopt;
        return packet->rawData();
    });
    const auto viewed = outcome([&]() -> Encoded {
        const auto view = OSCPacketView::decode(bytes);
        if (!view) return std::nullopt;
        return ownedCopy(*view).rawData();
    });
    if (owning == viewed) return {};
    return "owning: " + owning + "\nview: " + viewed;
}

}  // namespace kavrin::test
