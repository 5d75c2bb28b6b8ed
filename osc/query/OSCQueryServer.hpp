#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "osc/addressing/OSCAddressSpace.hpp"
#include "osc/dispatch/DispatchQueue.hpp"
#include "osc/query/OSCQueryNode.hpp"

namespace kavrin {

class OSCServer;
class OSCStreamServer;

/// Where an OSCQueryServer listens, what its HOST_INFO says and what it lets clients write.
/// A plain value.
struct OSCQueryServerSettings {
    std::string name = "Kavrin";  ///< HOST_INFO's NAME
    /// Where HTTP listens, numeric: loopback unless the owner says otherwise ("0.0.0.0" or
    /// "::" for every interface).
    std::string httpAddress = "127.0.0.1";
    std::uint16_t httpPort = 0;  ///< 0 for the kernel's choice
    /// HOST_INFO's OSC_IP; empty for the address each client reached the server at.
    std::string oscAddress;
    std::uint16_t oscPort = 0;
    OSCQueryTransport oscTransport = OSCQueryTransport::udp;
    /// Whether OSC packets a WebSocket client sends in binary frames are dispatched to the
    /// space. Off, such a frame closes its connection.
    bool acceptValues = false;
    /// The browser origins ("http://localhost:8080") whose pages may send values too, when
    /// values are accepted at all; connections that name no origin are not browsers.
    std::set<std::string> writeOrigins;
};

/// Describes an address space over HTTP and a WebSocket on one port, as OSCQuery does:
/// `GET /` and `GET /any/path` answer the tree below as JSON, `?VALUE`, `?TYPE` and the other
/// attributes one at a time, `?HOST_INFO` where to send OSC. WebSocket clients send LISTEN and
/// IGNORE for a method and get its values as binary OSC packets, and PATH_ADDED and
/// PATH_REMOVED for the methods registered or unregistered through the server.
///
/// The space itself is left unchanged: the server keeps each method's attributes and current
/// value beside it, and reads the space on the queue its owner names, since the space has no
/// lock of its own. Pages of any origin may read (CORS); nothing is written unless the settings
/// say so.
///
/// Thread safety: every operation may be called from any thread. The server reads and changes
/// the space only in work on the space's queue, never inside a call to the server.
class OSCQueryServer {
  public:
    using Settings = OSCQueryServerSettings;

    OSCQueryServer(std::shared_ptr<OSCAddressSpace> space, std::shared_ptr<DispatchQueue> spaceQueue,
                   Settings settings = {});
    /// Closes every connection.
    ~OSCQueryServer();
    OSCQueryServer(const OSCQueryServer&) = delete;
    OSCQueryServer& operator=(const OSCQueryServer&) = delete;

    /// Starts listening, once. Throws std::system_error with the reason when it cannot.
    void start();
    /// The HTTP port once started, 0 before.
    std::uint16_t boundPort() const;

    /// HOST_INFO names this server's bound port and UDP, or TCP for a stream server.
    void describeOSCServer(const OSCServer& server);
    void describeOSCServer(const OSCStreamServer& server);

    /// The attributes of the method at `address`, which the space may hold already or later.
    void setAttributes(std::string address, OSCQueryAttributes attributes);
    /// Registers a method in the space (on its queue) with its attributes; a new one is
    /// announced to WebSocket clients with PATH_ADDED.
    void registerMethod(std::string address, OSCAddressSpace::Block block,
                        OSCQueryAttributes attributes = {});
    /// Unregisters a method (on the space's queue), announced with PATH_REMOVED.
    void unregisterMethod(std::string address);
    /// The current value of the method at `address`, sent at once to its listeners as an OSC
    /// message. Throws OSCEncodeError for values OSC cannot carry (arrays nested too deep).
    void setValue(std::string_view address, OSCValueList values);

    /// WebSocket clients listening to `address` now.
    std::size_t listenerCount(std::string_view address) const;
    /// Open connections, HTTP and WebSocket.
    std::size_t connectionCount() const;

  private:
    struct Impl;
    std::shared_ptr<Impl> impl_;
};

}  // namespace kavrin
