#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

namespace kavrin {

/// What the errors of every socket share: a domain, an integer code, a description (what()) and,
/// for system-call failures, the step that failed as the failure reason. Each socket's error type
/// derives from it and adds its own domain and codes; errors of the two shared domains read the
/// same from every socket:
/// "NSPOSIXErrorDomain" for a failed system call (code errno, description strerror),
/// "kCFStreamErrorDomainNetDB" for a failed getaddrinfo (code its result, description
/// gai_strerror). A plain value: safe to copy and pass between threads.
class SocketError : public std::runtime_error {
  public:
    static constexpr const char* posixDomain = "NSPOSIXErrorDomain";
    static constexpr const char* netDBDomain = "kCFStreamErrorDomainNetDB";

    SocketError();  ///< empty: no domain, code 0, no description
    SocketError(std::string domain, int code, std::string description,
                std::optional<std::string> failureReason = std::nullopt);

    const std::string& domain() const { return domain_; }
    int code() const { return code_; }
    const std::string& description() const { return description_; }
    const std::optional<std::string>& failureReason() const { return failureReason_; }

    /// From the current errno; reason (the failing step) becomes the failure reason.
    static SocketError posixError(std::optional<std::string> reason = std::nullopt);
    /// From a getaddrinfo result code.
    static SocketError netDBError(int code);

    /// An argument no socket can use (an empty host, say), found by a piece the sockets share:
    /// each socket's error made from it is that socket's bad-param error, with this text.
    static constexpr const char* paramDomain = "SocketParamDomain";
    static SocketError unusableParam(std::string description);

  private:
    std::string domain_;
    int code_ = 0;
    std::string description_;
    std::optional<std::string> failureReason_;
};

/// What each socket's error type makes alike: its own domain's bad-config and bad-param errors,
/// and the shared domains' errors as its own type. `Derived` names its socketDomain and its
/// codes badConfig and badParam.
template <class Derived>
class SocketErrorOf : public SocketError {
  public:
    SocketErrorOf() = default;  ///< empty: no domain, code 0, no description
    // Two constructors rather than a default argument: an empty reason made inline, then moved,
    // draws a false "may be used uninitialized" from g++ 12.
    SocketErrorOf(std::string domain, int code, std::string description)
        : SocketError(std::move(domain), code, std::move(description)) {}
    SocketErrorOf(std::string domain, int code, std::string description,
                  std::optional<std::string> failureReason)
        : SocketError(std::move(domain), code, std::move(description),
                      std::move(failureReason)) {}
    /// An error of a shared domain, as the pieces shared with other sockets report it; an
    /// unusable argument becomes this socket's bad-param error.
    explicit SocketErrorOf(SocketError error)
        : SocketError(error.domain() == paramDomain ? Derived::badParamError(error.description())
                                                    : std::move(error)) {}

    static Derived badConfigError(std::string description) {
        return {Derived::socketDomain, Derived::badConfig, std::move(description)};
    }
    static Derived badParamError(std::string description) {
        return {Derived::socketDomain, Derived::badParam, std::move(description)};
    }
    /// From the current errno; reason (the failing step) becomes the failure reason.
    static Derived errnoError(std::optional<std::string> reason = std::nullopt) {
        return Derived(posixError(std::move(reason)));
    }
};

}  // namespace kavrin
