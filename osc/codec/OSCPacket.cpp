#include "osc/codec/OSCPacket.hpp"

#include <functional>

namespace kavrin {

std::vector<std::uint8_t> OSCPacket::rawData(OSCTextPolicy policy) const {
    return std::visit([policy](const auto& packet) { return packet.rawData(policy); }, base());
}

void OSCPacket::encode(std::vector<std::uint8_t>& into, OSCTextPolicy policy) const {
    std::visit([&](const auto& packet) { packet.encode(into, policy); }, base());
}

std::string OSCPacket::description() const {
    return std::visit([](const auto& packet) { return packet.description(); }, base());
}

std::optional<OSCPacket> OSCPacket::decode(std::span<const std::uint8_t> bytes,
                                           OSCTextPolicy policy) {
    const auto type = classifyPacket(bytes);
    if (!type) return std::nullopt;  // not copied only to be dropped
    if (*type == OSCObjectType::bundle) return OSCBundle::decode(bytes, policy);
    return decodeMessage(bytes, nullptr, policy);
}

std::optional<OSCPacket> OSCPacket::decode(std::vector<std::uint8_t>&& bytes,
                                           OSCTextPolicy policy) {
    const auto type = classifyPacket(bytes);
    if (!type) return std::nullopt;
    // The vector itself becomes the shared copy the packet keeps: one allocation, no copy.
    auto holder = std::make_shared<const std::vector<std::uint8_t>>(std::move(bytes));
    const std::size_t size = holder->size();
    return decode(std::shared_ptr<const std::uint8_t[]>(holder, holder->data()), size, policy);
}

std::optional<OSCPacket> OSCPacket::decode(std::shared_ptr<const std::uint8_t[]> buffer,
                                           std::size_t size, OSCTextPolicy policy) {
    const std::span<const std::uint8_t> bytes(buffer.get(), size);
    const auto type = classifyPacket(bytes);
    if (!type) return std::nullopt;
    if (*type == OSCObjectType::bundle) {
        return std::optional<OSCPacket>(OSCBundle::decode(bytes, std::move(buffer), 1, policy));
    }
    return decodeMessage(bytes, std::move(buffer), policy);
}

// The message is decoded where the caller wants it, never moved: it holds its values inside, so
// a move would move each one. (An empty optional made first would be zero-filled whole.)
std::optional<OSCPacket> OSCPacket::decodeMessage(std::span<const std::uint8_t> bytes,
                                                  std::shared_ptr<const std::uint8_t[]> buffer,
                                                  OSCTextPolicy policy) {
    std::optional<OSCPacket> packet(std::in_place, std::in_place_type<OSCMessage>);
    std::get<OSCMessage>(*packet).decodeFrom(bytes, std::move(buffer), policy);
    return packet;
}

}  // namespace kavrin

std::size_t std::hash<kavrin::OSCPacket>::operator()(
    const kavrin::OSCPacket& packet) const noexcept {
    const std::size_t h = std::visit(
        [](const auto& p) { return std::hash<std::decay_t<decltype(p)>>{}(p); }, packet.base());
    return h ^ packet.index();
}
