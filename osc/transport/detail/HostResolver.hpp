#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "osc/transport/SocketAddress.hpp"
#include "osc/transport/SocketError.hpp"

namespace kavrin {

class DispatchQueue;

/// Turns a host (a name or numeric text) and a port into socket addresses for one kind of
/// socket: socketType and protocol as getaddrinfo takes them (SOCK_DGRAM and IPPROTO_UDP,
/// SOCK_STREAM and IPPROTO_TCP). A plain value: safe to use from any thread.
/// Internal to the transport layer.
class HostResolver {
  public:
    /// addresses in the resolver's order, empty exactly when error is set; the error is of a
    /// shared domain (SocketError), for the socket to make its own.
    using Completion = std::function<void(std::vector<SocketAddress> addresses,
                                          std::optional<SocketError> error)>;

    constexpr HostResolver(int socketType, int protocol)
        : socketType_(socketType), protocol_(protocol) {}

    /// Looks host up on the global queue (lookups block) and posts completion to queue, never
    /// running it from inside this call. An empty host fails as an unusable parameter; "localhost"
    /// and "loopback" give 127.0.0.1 then ::1 without a lookup. completion (and what it holds)
    /// is kept until it has run.
    void resolve(const std::string& host, std::uint16_t port, std::shared_ptr<DispatchQueue> queue,
                 Completion completion) const;

  private:
    int socketType_;
    int protocol_;
};

}  // namespace kavrin
