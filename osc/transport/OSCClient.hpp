#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "osc/codec/OSCPacket.hpp"

namespace kavrin {

class UdpSocket;

/// Sends OSC packets as single UDP datagrams; every send names its destination. It keeps no
/// connection and reports nothing about delivery: a link is judged by its replies.
///
/// Thread safety: send() may be called from any thread; the socket works on its own queue.
class OSCClient {
  public:
    OSCClient();
    /// Closes the socket once the datagrams already sent are handed to the kernel or have
    /// failed, and after a few seconds at the latest; returns at once.
    ~OSCClient();
    OSCClient(const OSCClient&) = delete;
    OSCClient& operator=(const OSCClient&) = delete;

    /// Encodes packet and queues it for host (a name or a numeric address) and port, then
    /// returns at once. Throws OSCEncodeError when the packet cannot be encoded, and sends
    /// nothing then; resolution and send failures are deliberately not reported.
    void send(const OSCPacket& packet, const std::string& host, std::uint16_t port);

  private:
    const std::shared_ptr<UdpSocket> udpClient;
};

}  // namespace kavrin
