#include "osc/transport/OSCClient.hpp"

#include <chrono>

#include "osc/dispatch/GlobalQueue.hpp"
#include "osc/transport/UdpSocket.hpp"

namespace kavrin {

namespace {

// Covers a slow name lookup as well as a send that waits for room; the socket's own send
// timer starts only once a send would block, so it bounds neither alone.
constexpr std::chrono::seconds releaseBound{5};

}  // namespace

OSCClient::OSCClient() : udpClient(UdpSocket::create()) {}

OSCClient::~OSCClient() {
    // What was sent before the release still goes out: the socket closes once its queue is
    // empty, and at the latest after the bound, which keeps it alive until then.
    udpClient->closeAfterSending();
    GlobalQueue::get()->asyncAfter(releaseBound, [socket = udpClient] { socket->close(); });
}

void OSCClient::send(const OSCPacket& packet, const std::string& host, std::uint16_t port) {
    // One timeout and one tag for every datagram; with no delegate the outcome goes nowhere.
    udpClient->sendData(packet.rawData(), host, port, 1.0, 0);
}

}  // namespace kavrin
