#include "osc/codec/OSCPacketView.hpp"

#include "osc/codec/OSCError.hpp"

namespace kavrin {

std::optional<OSCPacketView> OSCPacketView::decode(std::span<const std::uint8_t> bytes) {
    const auto type = classifyPacket(bytes);
    if (!type) return std::nullopt;
    if (*type == OSCObjectType::bundle) return OSCPacketView(OSCBundleView(bytes));
    return OSCPacketView(OSCMessageView(bytes));
}

const OSCMessageView& OSCPacketView::message() const {
    if (const auto* message = std::get_if<OSCMessageView>(&view_)) return *message;
    throw OSCDecodeError(OSCDecodeError::Case::unexpectedType, "The OSC packet is a bundle.");
}

const OSCBundleView& OSCPacketView::bundle() const {
    if (const auto* bundle = std::get_if<OSCBundleView>(&view_)) return *bundle;
    throw OSCDecodeError(OSCDecodeError::Case::unexpectedType, "The OSC packet is a message.");
}

std::span<const std::uint8_t> OSCPacketView::bytes() const {
    return std::visit([](const auto& view) { return view.bytes(); }, view_);
}

OSCPacket OSCPacketView::packet() const {
    if (isBundle()) return OSCBundle::decode(bytes());
    return OSCMessage::decode(bytes());
}

}  // namespace kavrin
