#pragma once

#include <sys/socket.h>

#include "osc/transport/SocketAddress.hpp"

namespace kavrin {

// A SocketAddress as bind, connect and sendto take it; the kernel copies the bytes and does not
// mind their alignment. Internal to the transport layer.
inline const sockaddr* sockaddrOf(const SocketAddress& address) {
    return reinterpret_cast<const sockaddr*>(address.data());
}

inline socklen_t lengthOf(const SocketAddress& address) {
    return static_cast<socklen_t>(address.size());
}

}  // namespace kavrin
