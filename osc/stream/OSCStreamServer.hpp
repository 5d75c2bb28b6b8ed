#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "osc/dispatch/DispatchQueue.hpp"
#include "osc/stream/OSCStreamConnection.hpp"
#include "osc/stream/OSCStreamCounters.hpp"
#include "osc/stream/OSCStreamSettings.hpp"
#include "osc/transport/OSCServer.hpp"
#include "osc/transport/TcpSocket.hpp"
#include "osc/transport/TcpSocketError.hpp"

namespace kavrin {

class OSCStreamReceiver;

/// Receives OSC packets over TCP (optionally TLS) on one port, IPv4 and IPv6, from many
/// connections at once, and hands every message in them, bundles opened depth first, to one
/// handler on the dispatch queue together with the connection it came in on, to answer on.
///
/// A peer costs bounded memory and only its own connection: a packet over the maximum frame, a
/// broken framing, a pause mid-packet past the frame time-out or a rest past the idle time-out
/// each ends that connection, reported to the close handler with why, while the others are
/// served on; a connection past the cap is closed as soon as it is accepted, unreported. A
/// packet that fails to decode is dropped and counted; its connection reads on.
///
/// Thread safety: every operation may be called from any thread. Packets are decoded on the
/// server's serial receive queue, "OSCStreamServer"; the handlers run on the dispatch queue,
/// never inside a call to the server.
class OSCStreamServer : public std::enable_shared_from_this<OSCStreamServer> {
    struct Private {};

  public:
    using TimeTagMode = OSCServer::TimeTagMode;
    using Handler = OSCStreamHandler;
    using Connection = std::shared_ptr<OSCStreamConnection>;
    /// A connection has opened (its TLS handshake done).
    using OpenHandler = std::function<void(const Connection&)>;
    /// A connection has closed: error is empty when it closed in order (either side), else why.
    using CloseHandler =
        std::function<void(const Connection&, const std::optional<TcpSocketError>& error)>;

    /// Makes a server that is not yet listening.
    static std::shared_ptr<OSCStreamServer> create(std::uint16_t port,
                                                   std::shared_ptr<DispatchQueue> dispatchQueue,
                                                   TimeTagMode mode,
                                                   OSCStreamSettings settings = {},
                                                   Handler handler = nullptr);
    OSCStreamServer(Private, std::uint16_t port, std::shared_ptr<DispatchQueue> dispatchQueue,
                    TimeTagMode mode, OSCStreamSettings settings, Handler handler);
    /// Closes the listener and every connection, without reports.
    ~OSCStreamServer();
    OSCStreamServer(const OSCStreamServer&) = delete;
    OSCStreamServer& operator=(const OSCStreamServer&) = delete;

    /// The handler called by each delivery is the one in force when its block runs.
    void setHandler(Handler handler);
    /// Called on the receive queue with each message read in place, as OSCServer::setViewHandler
    /// says: at once, whatever the time-tag mode, besides the handler. The view is valid only
    /// during the call.
    using ViewHandler = OSCStreamViewHandler;
    void setViewHandler(ViewHandler handler);
    /// Given each packet as it arrives, before it is decoded (those then dropped too), on the
    /// dispatch queue in order with the deliveries: for tools that show what arrives. Costs a
    /// copy of every packet while set.
    using PacketHandler =
        std::function<void(std::span<const std::uint8_t> packet, const Connection& from)>;
    void setPacketHandler(PacketHandler handler);
    void setOpenHandler(OpenHandler handler);
    void setCloseHandler(CloseHandler handler);
    TimeTagMode timeTagMode() const;
    void setTimeTagMode(TimeTagMode mode);
    /// See OSCServer::setScheduledLimit; here a packet over it is dropped whole.
    void setScheduledLimit(OSCScheduledLimit limit);
    OSCScheduledLimit scheduledLimit() const;

    /// Connections open at once; past it a new one is closed as soon as it is accepted
    /// (TcpSocket::defaultMaxAcceptedConnections by default).
    void setMaxConnections(std::size_t count);
    /// Seconds a connection may pass no byte either way before it is closed with
    /// TcpSocketError::idleTimeout; negative for no limit (300 by default).
    void setIdleTimeout(double seconds);

    /// Starts listening. Throws the socket's TcpSocketError when the port cannot be had; may be
    /// called again after a failure or a stop().
    void start();
    /// Stops listening and closes every connection at once (each reported to the close handler).
    void stop();

    /// The port asked for at creation.
    std::uint16_t port() const;
    /// As given at creation.
    const OSCStreamSettings& settings() const;
    /// The port listened on once started, 0 before: the kernel's choice for port 0, the same
    /// on IPv4 and IPv6.
    std::uint16_t boundPort() const;
    /// The connections open now.
    std::vector<Connection> connections() const;
    OSCStreamCounters counters() const;

  private:
    class ListenerDelegate;

    void accepted(std::shared_ptr<TcpSocket> socket);
    void closed(const Connection& connection, const std::optional<TcpSocketError>& error);

    struct State;
    const std::unique_ptr<State> d_;
};

}  // namespace kavrin
