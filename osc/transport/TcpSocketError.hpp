#pragma once

#include <optional>
#include <string>

#include "osc/transport/SocketError.hpp"

namespace kavrin {

/// The error of every TcpSocket report and call. Domains: "TcpSocketErrorDomain" for the
/// socket's own errors (codes in Code), and the shared posixDomain (a refused connection is
/// ECONNREFUSED there) and netDBDomain (SocketError). A plain value: safe to copy and pass
/// between threads.
class TcpSocketError : public SocketErrorOf<TcpSocketError> {
  public:
    static constexpr const char* socketDomain = "TcpSocketErrorDomain";

    /// Codes of socketDomain.
    enum Code : int {
        badConfig = 1,          ///< the call does not fit the socket's state; text says why
        badParam = 2,           ///< an argument is unusable; text says which
        connectTimeout = 3,     ///< "Attempt to connect to host timed out"
        readTimeout = 4,        ///< "Read operation timed out"
        writeTimeout = 5,       ///< "Write operation timed out"
        readMaxedOut = 6,       ///< "Read operation reached set maximum length"
        closedByPeer = 7,       ///< "Socket closed by remote peer"
        idleTimeout = 8,        ///< "Connection idle for too long"
        writeQueueFull = 9,     ///< "Too much data waiting to be written"
        tls = 10,               ///< OpenSSL's reason text; for a refused certificate the reason
                                ///< verification gave is the failure reason. A file of the
                                ///< settings that does not load is named with the cause:
                                ///< `Cannot load the private key from "FILE": No such file or
                                ///< directory`
        handshakeTimeout = 11,  ///< "TLS handshake timed out"
    };

    using SocketErrorOf::SocketErrorOf;

    static TcpSocketError connectTimeoutError();
    static TcpSocketError readTimeoutError();
    static TcpSocketError writeTimeoutError();
    static TcpSocketError readMaxedOutError();
    static TcpSocketError closedByPeerError();
    static TcpSocketError idleTimeoutError();
    static TcpSocketError writeQueueFullError();
    static TcpSocketError handshakeTimeoutError();
    static TcpSocketError tlsError(std::string description,
                                   std::optional<std::string> failureReason = std::nullopt);
};

}  // namespace kavrin
