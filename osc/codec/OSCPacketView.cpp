#include "osc/codec/OSCPacketView.hpp"

#include "osc/codec/OSCError.hpp"

namespace kavrin {

// What a bundle view keeps of its first messages must not make every packet view larger.
static_assert(sizeof(OSCBundleView) <= sizeof(OSCMessageView));

std::optional<OSCPacketView> OSCPacketView::decode(std::span<const std::uint8_t> bytes,
                                                   OSCTextPolicy policy) {
    std::optional<OSCPacketView> packet;
    const auto type = classifyPacket(bytes);
    if (type == OSCObjectType::bundle) {
        packet.emplace(Key(), std::in_place_type<OSCBundleView>, bytes, policy);
    } else if (type == OSCObjectType::message) {
        packet.emplace(Key(), std::in_place_type<OSCMessageView>, bytes, policy);
    }
    return packet;
}

void OSCPacketView::wrongKind(const char* text) {
    throw OSCDecodeError(OSCDecodeError::Case::unexpectedType, text);
}

std::span<const std::uint8_t> OSCPacketView::bytes() const {
    return std::visit([](const auto& view) { return view.bytes(); }, view_);
}

OSCPacket OSCPacketView::packet() const {
    if (isBundle()) return bundle().bundle();
    return message().message();
}

}  // namespace kavrin
