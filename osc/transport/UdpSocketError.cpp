#include "osc/transport/UdpSocketError.hpp"

#include <netdb.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace kavrin {

UdpSocketError::UdpSocketError() : std::runtime_error("") {}

UdpSocketError::UdpSocketError(std::string domain, int code, std::string description,
                               std::optional<std::string> failureReason)
    : std::runtime_error(description),
      domain_(std::move(domain)),
      code_(code),
      description_(std::move(description)),
      failureReason_(std::move(failureReason)) {}

UdpSocketError UdpSocketError::badConfigError(std::string description) {
    return {socketDomain, badConfig, std::move(description)};
}

UdpSocketError UdpSocketError::badParamError(std::string description) {
    return {socketDomain, badParam, std::move(description)};
}

// These two texts are looked up in a string table elsewhere; there is none here, so the
// default text is the text.
UdpSocketError UdpSocketError::sendTimeoutError() {
    return {socketDomain, sendTimeout, "Send operation timed out"};
}

UdpSocketError UdpSocketError::socketClosedError() {
    return {socketDomain, closed, "Socket closed"};
}

UdpSocketError UdpSocketError::otherError(std::string description) {
    return {socketDomain, other, std::move(description)};
}

UdpSocketError UdpSocketError::errnoError(std::optional<std::string> reason) {
    const int code = errno;
    return {posixDomain, code, std::strerror(code), std::move(reason)};
}

UdpSocketError UdpSocketError::gaiError(int code) {
    return {netDBDomain, code, gai_strerror(code)};
}

}  // namespace kavrin
