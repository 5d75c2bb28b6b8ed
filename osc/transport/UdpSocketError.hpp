#pragma once

#include <optional>
#include <string>

#include "osc/transport/SocketError.hpp"

namespace kavrin {

/// The error of every UdpSocket report: a domain, an integer code, a description (what()) and,
/// for system-call failures, the step that failed as the failure reason.
///
/// Domains: "UdpSocketErrorDomain" for the socket's own errors (codes in Code), and the shared
/// posixDomain and netDBDomain (SocketError). A plain value: safe to copy and pass between
/// threads.
class UdpSocketError : public SocketErrorOf<UdpSocketError> {
  public:
    static constexpr const char* socketDomain = "UdpSocketErrorDomain";

    /// Codes of socketDomain.
    enum Code : int { badConfig = 1, badParam = 2, sendTimeout = 3, closed = 4, other = 5 };

    using SocketErrorOf::SocketErrorOf;

    static UdpSocketError sendTimeoutError();   ///< "Send operation timed out"
    static UdpSocketError socketClosedError();  ///< "Socket closed"
    static UdpSocketError otherError(std::string description);
    /// From a getaddrinfo result code.
    static UdpSocketError gaiError(int code);
};

}  // namespace kavrin
