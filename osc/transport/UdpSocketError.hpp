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
class UdpSocketError : public SocketError {
  public:
    static constexpr const char* socketDomain = "UdpSocketErrorDomain";

    /// Codes of socketDomain.
    enum Code : int { badConfig = 1, badParam = 2, sendTimeout = 3, closed = 4, other = 5 };

    UdpSocketError();  ///< empty: no domain, code 0, no description
    UdpSocketError(std::string domain, int code, std::string description,
                   std::optional<std::string> failureReason = std::nullopt);
    /// An error of a shared domain, as the pieces shared with other sockets report it.
    explicit UdpSocketError(SocketError error);

    static UdpSocketError badConfigError(std::string description);
    static UdpSocketError badParamError(std::string description);
    static UdpSocketError sendTimeoutError();   ///< "Send operation timed out"
    static UdpSocketError socketClosedError();  ///< "Socket closed"
    static UdpSocketError otherError(std::string description);
    /// From the current errno; reason (the failing step) becomes the failure reason.
    static UdpSocketError errnoError(std::optional<std::string> reason = std::nullopt);
    /// From a getaddrinfo result code.
    static UdpSocketError gaiError(int code);
};

}  // namespace kavrin
