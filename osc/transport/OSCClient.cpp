#include "osc/transport/OSCClient.hpp"

#include "osc/transport/UdpSocket.hpp"

namespace kavrin {

OSCClient::OSCClient() : udpClient(UdpSocket::create()) {}

OSCClient::~OSCClient() {
    udpClient->close();
}

void OSCClient::send(const OSCPacket& packet, const std::string& host, std::uint16_t port) {
    // One timeout and one tag for every datagram; with no delegate the outcome goes nowhere.
    udpClient->sendData(packet.rawData(), host, port, 1.0, 0);
}

}  // namespace kavrin
