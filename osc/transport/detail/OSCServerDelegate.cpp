#include "osc/transport/detail/OSCServerDelegate.hpp"

#include <exception>
#include <optional>

#include "osc/codec/OSCPacket.hpp"
#include "osc/codec/OSCTimeTag.hpp"
#include "osc/transport/OSCServer.hpp"

namespace kavrin {

void OSCServerDelegate::udpSocketDidReceiveData(UdpSocket&, std::vector<std::uint8_t> data,
                                                const SocketAddress& address, const std::any&) {
    std::optional<OSCPacket> packet;
    try {
        packet = OSCPacket::decode(data);
    } catch (const std::exception&) {
        // A malformed datagram is dropped like one that is not OSC at all: no log, no error.
        return;
    }
    if (!packet) return;
    if (auto server = oscServer.lock())
        server->receive(std::move(*packet), address);
}

}  // namespace kavrin
