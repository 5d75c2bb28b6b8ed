#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kavrin::detail {

/// A request as the service hands it on.
struct HttpRequestInfo {
    std::string method;  ///< "GET" or "HEAD"; the rest are answered by the service itself
    std::string target;
    std::string origin;        ///< the Origin header; empty when there is none
    std::string localAddress;  ///< the address the connection came in on
};

/// An answer: the status and a JSON body (none for 204).
struct HttpReply {
    unsigned status = 200;
    std::string body;
};

/// HTTP/1.1 and WebSocket on one port, for the OSCQuery server: Boost.Beast on an io_context
/// thread of its own, behind plain callbacks. Every answer carries the CORS header that lets a
/// page of any origin read it. Bad input costs only its own connection: malformed requests get
/// 400, oversized headers 431, bodies 413, methods other than GET, HEAD and OPTIONS 405, and
/// the connection is closed; a request must arrive within the request time-out; past the
/// connection cap the longest-waiting connection without a request in progress is closed to
/// make room; a WebSocket peer whose unsent frames would pass the queue bound is dropped.
/// Internal to the query layer.
///
/// Thread safety: every operation may be called from any thread. The handlers run on the
/// service's thread, one at a time, never inside a call to the service.
class HttpService {
  public:
    struct Limits {
        std::size_t headerBytes = 8 * 1024;
        std::size_t bodyBytes = 4 * 1024;
        std::size_t messageBytes = 64 * 1024;        ///< one WebSocket message from a peer
        std::size_t queuedBytes = 16 * 1024 * 1024;  ///< frames waiting for one peer to read
        std::size_t connections = 1024;
        std::chrono::milliseconds requestTimeout{10'000};
    };
    using Frame = std::shared_ptr<const std::string>;
    using PeerID = std::uint64_t;
    struct Handlers {
        /// A GET or HEAD; `reply` is to be called once, from any thread, also after the
        /// service has gone (it then does nothing).
        std::function<void(HttpRequestInfo request, std::function<void(HttpReply)> reply)> request;
        /// A WebSocket has opened, after the upgrade `request`.
        std::function<void(PeerID peer, const HttpRequestInfo& request)> opened;
        std::function<void(PeerID peer, std::string text)> text;
        std::function<void(PeerID peer, std::string bytes)> binary;
        /// A WebSocket has closed, for whatever reason.
        std::function<void(PeerID peer)> closed;
    };

    HttpService(Handlers handlers, Limits limits);
    /// Closes every connection and waits for the service's thread.
    ~HttpService();
    HttpService(const HttpService&) = delete;
    HttpService& operator=(const HttpService&) = delete;

    /// Listens on a numeric address; returns the port, the kernel's choice for 0. Throws
    /// std::system_error with the reason.
    std::uint16_t listen(const std::string& address, std::uint16_t port);

    /// Queues a frame for each peer (a text or a binary one); peers gone are skipped.
    void send(std::vector<PeerID> peers, Frame frame, bool binary);
    /// Closes a WebSocket with the policy-violation code and the reason.
    void close(PeerID peer, std::string reason);
    /// Open connections, HTTP and WebSocket.
    std::size_t connectionCount() const;

    /// The io_context, the acceptor and the connections; in the .cpp only.
    struct Core;

  private:
    std::shared_ptr<Core> core_;
};

}  // namespace kavrin::detail
