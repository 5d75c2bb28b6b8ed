#include "osc/codec/OSCPacket.hpp"

#include <functional>

namespace kavrin {

std::vector<std::uint8_t> OSCPacket::rawData() const {
    return std::visit([](const auto& packet) { return packet.rawData(); }, base());
}

std::string OSCPacket::description() const {
    return std::visit([](const auto& packet) { return packet.description(); }, base());
}

std::optional<OSCPacket> OSCPacket::decode(std::span<const std::uint8_t> bytes) {
    const auto type = classifyPacket(bytes);
    if (!type) return std::nullopt;
    if (*type == OSCObjectType::bundle) return OSCPacket(OSCBundle::decode(bytes));
    return OSCPacket(OSCMessage::decode(bytes));
}

}  // namespace kavrin

std::size_t std::hash<kavrin::OSCPacket>::operator()(
    const kavrin::OSCPacket& packet) const noexcept {
    const std::size_t h = std::visit(
        [](const auto& p) { return std::hash<std::decay_t<decltype(p)>>{}(p); }, packet.base());
    return h ^ packet.index();
}
