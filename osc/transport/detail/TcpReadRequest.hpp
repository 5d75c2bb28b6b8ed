#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "osc/transport/detail/InboundBuffer.hpp"

namespace kavrin {

class TlsSession;

/// One entry of a TcpSocket's read queue: a read, or the point where TLS starts. Touched only on
/// the socket queue; internal to the socket.
class TcpReadRequest {
  public:
    enum class Kind { available, exactly, delimiter, startTLS };
    enum class Progress { done, needMore, maxedOut };

    TcpReadRequest(Kind kind, std::size_t length, std::vector<std::uint8_t> delimiter,
                   double timeout, std::int64_t tag)
        : kind(kind), length(length), delimiter(std::move(delimiter)), timeout(timeout), tag(tag) {}
    explicit TcpReadRequest(std::shared_ptr<TlsSession> tls)
        : kind(Kind::startTLS), timeout(-1.0), tag(0), tls(std::move(tls)) {}

    /// Moves what belongs to this read from inbound into buffer, and no byte past it; *added
    /// says how many.
    Progress take(InboundBuffer& inbound, std::size_t* added);

    const Kind kind;
    const std::size_t length = 0;  // exactly: the length; otherwise the maximum
    const std::vector<std::uint8_t> delimiter;
    const double timeout;  // seconds; negative means none
    const std::int64_t tag;
    const std::shared_ptr<TlsSession> tls;  // startTLS only
    std::vector<std::uint8_t> buffer;       // what the read has taken so far

  private:
    Progress takeToDelimiter(InboundBuffer& inbound, std::size_t* added);
    std::size_t scanned_ = 0;  // bytes of buffer known to hold no whole delimiter
};

}  // namespace kavrin
