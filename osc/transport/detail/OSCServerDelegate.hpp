#pragma once

#include <memory>

#include "osc/transport/UdpSocket.hpp"

namespace kavrin {

class OSCServer;

/// Takes an OSCServer's datagrams from its socket, a turn's block at a time, so that the socket
/// (which holds its delegate weakly and is owned by the server) never keeps the server alive.
///
/// Internal to OSCServer, which alone makes it and points it at itself. Called on the server's
/// receive queue.
class OSCServerDelegate final : public UdpSocketDelegate {
    struct Private {};

  public:
    explicit OSCServerDelegate(Private) {}

    void udpSocketDidReceiveBlock(UdpSocket& sock, UdpDatagramBlock block) override;

  private:
    friend class OSCServer;
    // Set once, before the socket learns of this delegate, and read only on the receive queue.
    std::weak_ptr<OSCServer> oscServer;
};

}  // namespace kavrin
