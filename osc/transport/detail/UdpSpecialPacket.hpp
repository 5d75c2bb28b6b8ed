#pragma once

#include <optional>
#include <vector>

#include "osc/transport/SocketAddress.hpp"
#include "osc/transport/UdpSocketError.hpp"

namespace kavrin {

/// A connect request standing in a UdpSocket's send queue, so that it is ordered with the sends
/// around it. Touched only on the socket queue; internal to the socket.
class UdpSpecialPacket {
  public:
    bool resolveInProgress = false;
    std::vector<SocketAddress> addresses;
    std::optional<UdpSocketError> error;
};

}  // namespace kavrin
