#include "osc/transport/detail/OSCServerDelegate.hpp"

#include "osc/transport/OSCServer.hpp"

namespace kavrin {

void OSCServerDelegate::udpSocketDidReceiveBlock(UdpSocket&, UdpDatagramBlock block) {
    if (auto server = oscServer.lock()) server->receive(block);
}

}  // namespace kavrin
