#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

#include "osc/dispatch/SerialQueue.hpp"
#include "osc/stream/OSCStreamConnection.hpp"
#include "osc/stream/OSCStreamCounters.hpp"
#include "osc/transport/OSCServer.hpp"
#include "osc/addressing/OSCDeliveryPlanner.hpp"
#include "osc/addressing/OSCDropReason.hpp"

namespace kavrin {

/// What an OSC stream server and client share: the packets of their connections decoded on one
/// serial receive queue, shown to the view handler there, planned by their time tags and handed
/// to the handler on the dispatch queue, a read's immediate deliveries as one work item; the
/// counters; the owner's hooks for connections that open and close.
///
/// receive(), flush(), opened() and closed() run on the receive queue (the connections' sockets
/// report there); everything else may be called from any thread. Internal to the stream layer.
class OSCStreamReceiver : public std::enable_shared_from_this<OSCStreamReceiver> {
  public:
    using Connection = std::shared_ptr<OSCStreamConnection>;
    using TimeTagMode = OSCServer::TimeTagMode;
    using Opened = std::function<void(const Connection&)>;
    using Closed = std::function<void(const Connection&, const std::optional<TcpSocketError>&)>;

    OSCStreamReceiver(std::shared_ptr<SerialQueue> receiveQueue,
                      std::shared_ptr<DispatchQueue> dispatchQueue, TimeTagMode mode,
                      OSCTextPolicy textPolicy, OSCStreamHandler handler);
    OSCStreamReceiver(const OSCStreamReceiver&) = delete;
    OSCStreamReceiver& operator=(const OSCStreamReceiver&) = delete;

    /// Set once, before any connection can report; called on the receive queue.
    void setHooks(Opened opened, Closed closed);
    const std::shared_ptr<SerialQueue>& receiveQueue() const { return receiveQueue_; }
    const std::shared_ptr<DispatchQueue>& dispatchQueue() const { return dispatchQueue_; }

    void receive(std::span<const std::uint8_t> packet, const Connection& from);
    /// The end of a read: what it decided goes to the dispatch queue.
    void flush();
    /// What the read being received holds of its connection's backlog: every work item it
    /// posts keeps it until run.
    void setReadHold(std::shared_ptr<const void> hold) { readHold_ = std::move(hold); }
    void opened(const Connection& connection);
    /// wasOpen: the connection had opened (a failed connect or handshake had not).
    void closed(const Connection& connection, const std::optional<TcpSocketError>& error,
                bool wasOpen);

    void setHandler(OSCStreamHandler handler);
    void setViewHandler(OSCStreamViewHandler handler);
    using PacketHandler =
        std::function<void(std::span<const std::uint8_t> packet, const Connection& from)>;
    void setPacketHandler(PacketHandler handler);
    void setTimeTagMode(TimeTagMode mode);
    TimeTagMode timeTagMode() const { return mode_.load(); }
    void setScheduledLimit(OSCScheduledLimit limit) { planner_.setLimit(limit); }
    OSCScheduledLimit scheduledLimit() const { return planner_.limit(); }
    OSCStreamCounters counters() const;

  private:
    using Planner = OSCDeliveryPlanner<Connection>;

    std::shared_ptr<const OSCStreamHandler> handler() const;
    void deliver(const OSCMessage& message, const OSCTimeTag& timeTag, const Connection& from,
                 const OSCStreamHandler* handler);
    void deliverNow(std::vector<Planner::Delivery> block);
    void deliverLater(Planner::ScheduledRun&& run);

    const std::shared_ptr<SerialQueue> receiveQueue_;
    const std::shared_ptr<DispatchQueue> dispatchQueue_;
    mutable std::mutex handlerMutex_;
    std::shared_ptr<const OSCStreamHandler> handler_;     // guarded by handlerMutex_
    std::shared_ptr<const PacketHandler> packetHandler_;  // guarded by handlerMutex_
    std::shared_ptr<const OSCStreamViewHandler> viewHandler_;  // guarded by handlerMutex_
    std::atomic<bool> hasPacketHandler_{false};
    std::atomic<bool> hasHandler_{false};
    std::atomic<bool> hasViewHandler_{false};
    std::atomic<TimeTagMode> mode_;
    const OSCTextPolicy textPolicy_;
    Opened opened_;
    Closed closed_;
    // Receive queue only.
    OSCMethodRoutes noRoutes_;
    Planner planner_;
    std::vector<Planner::Delivery> turn_;  // the read's immediate deliveries so far
    std::shared_ptr<const void> readHold_;  // receive queue only
    struct AtomicCounters {
        std::atomic<std::uint64_t> connectionsOpened{0}, connectionsFailed{0}, packetsReceived{0},
            messagesDelivered{0}, messagesViewed{0};
    } counted_;
    OSCDropTally dropped_;
};

}  // namespace kavrin
