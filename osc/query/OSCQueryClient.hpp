#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "osc/codec/OSCMessage.hpp"
#include "osc/dispatch/DispatchQueue.hpp"
#include "osc/query/OSCQueryNode.hpp"

namespace kavrin {

/// Reads what an OSCQuery server describes: its tree and its HOST_INFO over HTTP; listens to
/// methods over its WebSocket (values arrive as OSC messages, changes to the tree as path
/// events); and sends OSC to the port HOST_INFO names.
///
///     auto client = OSCQueryClient::create("127.0.0.1", 5678, loop);
///     client->fetchTree([](std::optional<OSCQueryNode> tree, const std::string& error) { ... });
///
/// Thread safety: every operation may be called from any thread. Handlers run on the queue
/// given, never inside a call to the client, and not once the client is destroyed.
class OSCQueryClient : public std::enable_shared_from_this<OSCQueryClient> {
    struct Private {};

  public:
    using TreeHandler = std::function<void(std::optional<OSCQueryNode> tree, const std::string& error)>;
    using HostInfoHandler =
        std::function<void(std::optional<OSCQueryHostInfo> info, const std::string& error)>;
    /// A value of a listened method, as the server sent it.
    using ValueHandler = std::function<void(const OSCMessage& message)>;
    enum class PathEvent { added, removed };
    /// A change to the tree: the node added (nullptr for a removal) at `path`.
    using PathHandler =
        std::function<void(PathEvent event, const std::string& path, const OSCQueryNode* node)>;
    /// The WebSocket has closed, with why; a later listen() opens it again.
    using CloseHandler = std::function<void(const std::string& reason)>;

    /// `host` is a name or a numeric address; each request waits at most `timeout`.
    static std::shared_ptr<OSCQueryClient> create(std::string host, std::uint16_t port,
                                                  std::shared_ptr<DispatchQueue> queue,
                                                  std::chrono::milliseconds timeout = std::chrono::seconds(5));
    OSCQueryClient(Private, std::string host, std::uint16_t port, std::shared_ptr<DispatchQueue> queue,
                   std::chrono::milliseconds timeout);
    ~OSCQueryClient();
    OSCQueryClient(const OSCQueryClient&) = delete;
    OSCQueryClient& operator=(const OSCQueryClient&) = delete;

    /// The node at `path` and everything below it.
    void fetchTree(TreeHandler handler, std::string path = "/");
    void fetchHostInfo(HostInfoHandler handler);

    void setValueHandler(ValueHandler handler);
    void setPathHandler(PathHandler handler);
    void setCloseHandler(CloseHandler handler);
    /// Asks for the values of the method at `path`, opening the WebSocket if need be.
    void listen(const std::string& path);
    void ignore(const std::string& path);

    /// Sends the message to the OSC address and port of HOST_INFO (fetched once, at the first
    /// send), over UDP or TCP as it says; a failure goes to `done` with why, success with "".
    void send(OSCMessage message, std::function<void(const std::string& error)> done = nullptr);

  private:
    struct Impl;
    std::shared_ptr<Impl> impl_;
};

}  // namespace kavrin
