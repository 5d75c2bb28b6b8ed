#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "osc/codec/OSCMessageView.hpp"
#include "osc/codec/OSCPacket.hpp"
#include "osc/stream/OSCDeframer.hpp"
#include "osc/stream/OSCStreamSettings.hpp"
#include "osc/transport/SocketAddress.hpp"
#include "osc/transport/TcpSocket.hpp"
#include "osc/transport/TcpSocketError.hpp"
#include "support/ReceiveBacklog.hpp"

namespace kavrin {

class OSCStreamConnection;
class OSCStreamReceiver;

/// Called with each message received on an OSC stream, the time tag of its innermost bundle
/// (immediate for a message sent on its own) and the connection it came in on, to answer on.
using OSCStreamHandler = std::function<void(const OSCMessage&, const OSCTimeTag&,
                                            const std::shared_ptr<OSCStreamConnection>& from)>;
/// The same for a message read in place, on the receive queue (OSCServer::ViewHandler). The view
/// is valid only during the call.
using OSCStreamViewHandler =
    std::function<void(const OSCMessageView&, const OSCTimeTag&,
                       const std::shared_ptr<OSCStreamConnection>& from)>;

/// One connection of an OSCStreamServer or OSCStreamClient: what a message came in on, and the
/// way to answer on it. Packets sent on it are framed as the server or client frames them.
///
/// Thread safety: every operation may be called from any thread. Keep the shared pointer as long
/// as you may answer; a connection that has closed refuses to send.
class OSCStreamConnection final : private TcpSocketDelegate,
                                  public std::enable_shared_from_this<OSCStreamConnection> {
    struct Private {};

  public:
    /// Encodes and frames packet and queues it behind what was sent before, then returns at
    /// once. False, with the error, when the connection has closed, the packet is over the
    /// maximum frame or too much waits unwritten; nothing is queued then. Throws OSCEncodeError
    /// for a packet that cannot be encoded.
    bool send(const OSCPacket& packet, TcpSocketError* error = nullptr);
    /// Closes once what was sent is written; the server or client then reports the close.
    void close();

    /// The peer, as the connection found it when it opened (kept after it closes).
    const SocketAddress& peerAddress() const { return peer_; }
    const SocketAddress& localAddress() const { return local_; }
    std::string peerHost() const { return peer_.host(); }
    std::uint16_t peerPort() const { return peer_.port(); }
    bool isSecure() const { return secure_.load(); }
    bool isClosed() const { return closed_.load(); }
    /// A number unique to this connection in the process, for logs.
    std::uint64_t id() const { return id_; }

    OSCStreamConnection(Private, std::weak_ptr<OSCStreamReceiver> receiver,
                        const OSCStreamSettings& settings, bool isServer);  // for the owners

  private:
    friend class OSCStreamServer;
    friend class OSCStreamClient;

    static std::shared_ptr<OSCStreamConnection> make(std::weak_ptr<OSCStreamReceiver> receiver,
                                                     const OSCStreamSettings& settings,
                                                     bool isServer);
    // The socket reports to this connection, on the receive queue.
    std::weak_ptr<TcpSocketDelegate> asDelegate();
    void attach(std::shared_ptr<TcpSocket> socket) { socket_ = std::move(socket); }
    TcpSocket& socket() const { return *socket_; }
    // Starts on a connected socket: TLS if asked for, then reading. Receive queue only.
    void begin();
    // Frames already made (a client's packets held while it reconnected).
    bool sendFramed(std::vector<std::uint8_t> framed, TcpSocketError* error);
    // Closes now, without writing what waits.
    void abort() { socket_->disconnect(); }

    void socketDidConnect(TcpSocket& sock, const std::string& host, std::uint16_t port) override;
    void socketDidSecure(TcpSocket& sock) override;
    void socketDidReadData(TcpSocket& sock, std::vector<std::uint8_t> data,
                           std::int64_t tag) override;
    void socketDidDisconnect(TcpSocket& sock, const std::optional<TcpSocketError>& error) override;

    void opened();
    void readNext();
    void fail(TcpSocketError error);

    static std::atomic<std::uint64_t> nextID_;

    const std::weak_ptr<OSCStreamReceiver> receiver_;
    const OSCFraming framing_;
    const std::size_t maximumFrame_;
    const double frameTimeout_;
    const double writeTimeout_;
    const OSCTextPolicy textPolicy_;
    const std::optional<TlsSettings> tls_;
    const std::uint64_t id_;
    std::shared_ptr<TcpSocket> socket_;
    const std::shared_ptr<ReceiveBacklog> backlog_ = std::make_shared<ReceiveBacklog>();
    std::atomic<bool> secure_{false};
    std::atomic<bool> closed_{false};
    // Receive queue only.
    OSCDeframer deframer_;
    // Written once, before any report that hands the connection out.
    SocketAddress peer_;
    SocketAddress local_;
    std::optional<TcpSocketError> failure_;  // why this side closed the connection
    bool wasOpened_ = false;                 // connected, and secured when TLS was asked for
};

}  // namespace kavrin
