#include "osc/transport/TcpSocketError.hpp"

#include <utility>

namespace kavrin {

TcpSocketError TcpSocketError::connectTimeoutError() {
    return {socketDomain, connectTimeout, "Attempt to connect to host timed out"};
}

TcpSocketError TcpSocketError::readTimeoutError() {
    return {socketDomain, readTimeout, "Read operation timed out"};
}

TcpSocketError TcpSocketError::writeTimeoutError() {
    return {socketDomain, writeTimeout, "Write operation timed out"};
}

TcpSocketError TcpSocketError::readMaxedOutError() {
    return {socketDomain, readMaxedOut, "Read operation reached set maximum length"};
}

TcpSocketError TcpSocketError::closedByPeerError() {
    return {socketDomain, closedByPeer, "Socket closed by remote peer"};
}

TcpSocketError TcpSocketError::idleTimeoutError() {
    return {socketDomain, idleTimeout, "Connection idle for too long"};
}

TcpSocketError TcpSocketError::writeQueueFullError() {
    return {socketDomain, writeQueueFull, "Too much data waiting to be written"};
}

TcpSocketError TcpSocketError::handshakeTimeoutError() {
    return {socketDomain, handshakeTimeout, "TLS handshake timed out"};
}

TcpSocketError TcpSocketError::tlsError(std::string description,
                                        std::optional<std::string> failureReason) {
    return {socketDomain, tls, std::move(description), std::move(failureReason)};
}

}  // namespace kavrin
