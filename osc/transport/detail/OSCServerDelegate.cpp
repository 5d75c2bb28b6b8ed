#include "osc/transport/detail/OSCServerDelegate.hpp"

#include "osc/transport/OSCServer.hpp"

namespace kavrin {

void OSCServerDelegate::udpSocketDidReceiveData(UdpSocket&, std::vector<std::uint8_t> data,
                                                const SocketAddress& address, const std::any&) {
    if (auto server = oscServer.lock()) server->receive(std::move(data), address);
}

}  // namespace kavrin
