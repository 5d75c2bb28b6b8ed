#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "osc/transport/SocketAddress.hpp"
#include "osc/transport/UdpSocketError.hpp"

namespace kavrin {

/// One datagram waiting in a UdpSocket's send queue; internal to the socket. Touched only on the
/// socket queue, except that the bytes are read (never changed) by a send filter while the packet
/// is held.
class UdpSendPacket {
  public:
    UdpSendPacket(std::vector<std::uint8_t> data, double timeout, std::int64_t tag)
        : buffer(std::move(data)), timeout(timeout), tag(tag) {}

    std::vector<std::uint8_t> buffer;  // the datagram, taken over from the caller
    double timeout;                    // seconds; negative means none
    std::int64_t tag;                  // the caller's label, echoed in reports
    bool resolveInProgress = false;
    bool filterInProgress = false;
    std::vector<SocketAddress> resolvedAddresses;
    std::optional<UdpSocketError> resolveError;
    SocketAddress address;  // the chosen destination
    int addressFamily = 0;  // AF_INET or AF_INET6
};

}  // namespace kavrin
