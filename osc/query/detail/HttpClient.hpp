#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace kavrin::detail {

/// HTTP GETs and one WebSocket to a server, for the OSCQuery client: Boost.Beast on an
/// io_context thread of its own, behind plain callbacks. Internal to the query layer.
///
/// Thread safety: every operation may be called from any thread. Callbacks run on the client's
/// thread, never inside a call to it, and never after the client is destroyed.
class HttpClient {
  public:
    struct Response {
        unsigned status = 0;
        std::string body;
        std::string error;  ///< why there is no response; empty when there is one
    };
    struct SocketHandlers {
        std::function<void()> opened;
        std::function<void(std::string text)> text;
        std::function<void(std::string bytes)> binary;
        std::function<void(std::string reason)> closed;
    };

    HttpClient(std::string host, std::uint16_t port, std::chrono::milliseconds timeout);
    ~HttpClient();
    HttpClient(const HttpClient&) = delete;
    HttpClient& operator=(const HttpClient&) = delete;

    /// GETs `target` on a connection of its own; bodies over 16 MiB are refused.
    void get(std::string target, std::function<void(Response)> handler);
    /// Opens the WebSocket unless it is open or opening; `handlers` replace earlier ones.
    void openSocket(SocketHandlers handlers);
    /// Sends a text frame once the WebSocket is open; dropped when it closes first.
    void sendText(std::string text);

  private:
    struct Core;
    std::shared_ptr<Core> core_;
};

}  // namespace kavrin::detail
