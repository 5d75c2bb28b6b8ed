#include "osc/transport/UdpSocketError.hpp"

#include <utility>

namespace kavrin {

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

UdpSocketError UdpSocketError::gaiError(int code) {
    return UdpSocketError(netDBError(code));
}

}  // namespace kavrin
