#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "osc/dispatch/DispatchQueue.hpp"
#include "osc/stream/OSCStreamConnection.hpp"
#include "osc/stream/OSCStreamCounters.hpp"
#include "osc/stream/OSCStreamSettings.hpp"
#include "osc/transport/OSCServer.hpp"
#include "osc/transport/TcpSocketError.hpp"

namespace kavrin {

class OSCStreamReceiver;

/// Sends OSC packets over one TCP connection (optionally TLS) to a host and port, and hands the
/// messages that come back on it to a handler, as OSCStreamServer does. After a drop it
/// connects again, waiting longer after each failure (unless told not to).
///
/// Packets sent while the connection is being made or made again wait, up to
/// maxPendingBytes, and go out in order once it is up; past that bound send() refuses.
///
/// Thread safety: every operation may be called from any thread. Packets are decoded on the
/// client's serial receive queue, "OSCStreamClient"; the handlers run on the dispatch queue,
/// never inside a call to the client.
class OSCStreamClient : public std::enable_shared_from_this<OSCStreamClient> {
    struct Private {};

  public:
    using TimeTagMode = OSCServer::TimeTagMode;
    using Handler = OSCStreamHandler;

    enum class State {
        connecting,  ///< connecting, or securing the connection
        connected,   ///< up: packets go out as they are sent
        waiting,     ///< dropped or refused; connects again after a delay
        closed,      ///< closed by close(), or dropped with reconnecting off: final
    };
    /// A change of state; error says why a connection failed or dropped (empty otherwise).
    using StateHandler = std::function<void(State, const std::optional<TcpSocketError>& error)>;

    /// After a failure the client waits initialDelay seconds, then twice as long after each
    /// further failure, up to maximumDelay; a connection that opens resets the delay.
    struct Reconnect {
        bool enabled = true;
        double initialDelay = 0.25;
        double maximumDelay = 30.0;
    };

    static constexpr std::size_t maxPendingBytes = 1 << 20;

    /// Makes a client that is not yet connecting; host is a name or a numeric address.
    static std::shared_ptr<OSCStreamClient> create(std::string host, std::uint16_t port,
                                                   std::shared_ptr<DispatchQueue> dispatchQueue,
                                                   OSCStreamSettings settings = {},
                                                   Handler handler = nullptr,
                                                   TimeTagMode mode = TimeTagMode::ignore);
    OSCStreamClient(Private, std::string host, std::uint16_t port,
                    std::shared_ptr<DispatchQueue> dispatchQueue, OSCStreamSettings settings,
                    Handler handler, TimeTagMode mode);
    /// Closes at once, without reports.
    ~OSCStreamClient();
    OSCStreamClient(const OSCStreamClient&) = delete;
    OSCStreamClient& operator=(const OSCStreamClient&) = delete;

    void setHandler(Handler handler);
    void setStateHandler(StateHandler handler);
    void setReconnect(Reconnect reconnect);
    TimeTagMode timeTagMode() const;
    void setTimeTagMode(TimeTagMode mode);

    /// Starts connecting; returns at once. Does nothing unless closed or never connected.
    void connect();
    /// Encodes and frames packet and queues it, then returns at once. False, with the error,
    /// after close(), for a packet over the maximum frame, or when too much waits; nothing is
    /// queued then. Throws OSCEncodeError for a packet that cannot be encoded.
    bool send(const OSCPacket& packet, TcpSocketError* error = nullptr);
    /// Stops connecting again and closes once what was sent is written; State::closed follows.
    void close();

    State state() const;
    /// The connection now up or being made; null while waiting or closed.
    std::shared_ptr<OSCStreamConnection> connection() const;
    OSCStreamCounters counters() const;

  private:
    void connectNow();
    void closed(const std::shared_ptr<OSCStreamConnection>& connection,
                const std::optional<TcpSocketError>& error);
    void changeState(State state, const std::optional<TcpSocketError>& error);

    const std::string host_;
    const std::uint16_t port_;
    const OSCStreamSettings settings_;
    const std::shared_ptr<OSCStreamReceiver> receiver_;
    mutable std::mutex mutex_;
    // Guarded by mutex_.
    StateHandler stateHandler_;
    Reconnect reconnect_;
    State state_ = State::closed;
    bool closing_ = false;
    std::shared_ptr<OSCStreamConnection> connection_;
    std::vector<std::vector<std::uint8_t>> pending_;  // framed, for the next connection
    std::size_t pendingBytes_ = 0;
    double delay_ = 0;              // before the next attempt
    std::uint64_t generation_ = 0;  // counts connect() calls, so a stale retry does nothing
};

}  // namespace kavrin
