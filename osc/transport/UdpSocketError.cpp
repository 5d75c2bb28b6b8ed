#include "osc/transport/UdpSocketError.hpp"

#include <utility>

namespace kavrin {

UdpSocketError::UdpSocketError() = default;

UdpSocketError::UdpSocketError(std::string domain, int code, std::string description,
                               std::optional<std::string> failureReason)
    : SocketError(std::move(domain), code, std::move(description), std::move(failureReason)) {}

UdpSocketError::UdpSocketError(SocketError error)
    : SocketError(error.domain() == paramDomain ? badParamError(error.description())
                                                : std::move(error)) {}

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
    return UdpSocketError(posixError(std::move(reason)));
}

UdpSocketError UdpSocketError::gaiError(int code) {
    return UdpSocketError(netDBError(code));
}

}  // namespace kavrin
