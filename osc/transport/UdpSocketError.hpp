#pragma once

#include <optional>
#include <stdexcept>
#include <string>

namespace kavrin {

/// The error of every UdpSocket report: a domain, an integer code, a description (what()) and,
/// for system-call failures, the step that failed as the failure reason.
///
/// Domains: "UdpSocketErrorDomain" for the socket's own errors (codes in Code),
/// "NSPOSIXErrorDomain" for a failed system call (code errno, description strerror),
/// "kCFStreamErrorDomainNetDB" for a failed getaddrinfo (code its result, description
/// gai_strerror). A plain value: safe to copy and pass between threads.
class UdpSocketError : public std::runtime_error {
  public:
    static constexpr const char* socketDomain = "UdpSocketErrorDomain";
    static constexpr const char* posixDomain = "NSPOSIXErrorDomain";
    static constexpr const char* netDBDomain = "kCFStreamErrorDomainNetDB";

    /// Codes of socketDomain.
    enum Code : int { badConfig = 1, badParam = 2, sendTimeout = 3, closed = 4, other = 5 };

    UdpSocketError();  ///< empty: no domain, code 0, no description
    UdpSocketError(std::string domain, int code, std::string description,
                   std::optional<std::string> failureReason = std::nullopt);

    const std::string& domain() const { return domain_; }
    int code() const { return code_; }
    const std::string& description() const { return description_; }
    const std::optional<std::string>& failureReason() const { return failureReason_; }

    static UdpSocketError badConfigError(std::string description);
    static UdpSocketError badParamError(std::string description);
    static UdpSocketError sendTimeoutError();   ///< "Send operation timed out"
    static UdpSocketError socketClosedError();  ///< "Socket closed"
    static UdpSocketError otherError(std::string description);
    /// From the current errno; reason (the failing step) becomes the failure reason.
    static UdpSocketError errnoError(std::optional<std::string> reason = std::nullopt);
    /// From a getaddrinfo result code.
    static UdpSocketError gaiError(int code);

  private:
    std::string domain_;
    int code_ = 0;
    std::string description_;
    std::optional<std::string> failureReason_;
};

}  // namespace kavrin
