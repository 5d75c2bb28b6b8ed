#include "osc/transport/SocketError.hpp"

#include <netdb.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace kavrin {

SocketError::SocketError() : std::runtime_error("") {}

SocketError::SocketError(std::string domain, int code, std::string description,
                         std::optional<std::string> failureReason)
    : std::runtime_error(description),
      domain_(std::move(domain)),
      code_(code),
      description_(std::move(description)),
      failureReason_(std::move(failureReason)) {}

SocketError SocketError::posixError(std::optional<std::string> reason) {
    const int code = errno;
    return {posixDomain, code, std::strerror(code), std::move(reason)};
}

SocketError SocketError::netDBError(int code) {
    return {netDBDomain, code, gai_strerror(code)};
}

SocketError SocketError::unusableParam(std::string description) {
    return {paramDomain, 0, std::move(description)};
}

}  // namespace kavrin
