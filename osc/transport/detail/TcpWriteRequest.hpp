#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace kavrin {

class TlsSession;

/// One entry of a TcpSocket's write queue: bytes to write, or the point where TLS starts.
/// Touched only on the socket queue; internal to the socket.
class TcpWriteRequest {
  public:
    TcpWriteRequest(std::vector<std::uint8_t> data, double timeout, std::int64_t tag)
        : data(std::move(data)), timeout(timeout), tag(tag) {}
    explicit TcpWriteRequest(std::shared_ptr<TlsSession> tls)
        : timeout(-1.0), tag(0), tls(std::move(tls)) {}

    const std::vector<std::uint8_t> data;  // taken over from the caller
    const double timeout;                  // seconds; negative means none
    const std::int64_t tag;
    const std::shared_ptr<TlsSession> tls;  // set for the start of TLS only
    std::size_t written = 0;
    std::size_t reported = 0;  // of written, told to the delegate as partial progress
};

}  // namespace kavrin
