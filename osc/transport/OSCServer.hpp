#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <variant>
#include <vector>

#include "osc/codec/OSCMessage.hpp"
#include "osc/codec/OSCPacket.hpp"
#include "osc/codec/OSCTimeTag.hpp"
#include "osc/dispatch/DispatchQueue.hpp"
#include "osc/dispatch/SerialQueue.hpp"
#include "osc/transport/SocketAddress.hpp"
#include "osc/transport/detail/DeliveryBatcher.hpp"

namespace kavrin {

class UdpSocket;
class OSCServerDelegate;

/// Receives OSC packets on one UDP port (IPv4 and IPv6, all interfaces, port reuse on) and hands
/// every message in them, bundles opened depth first, to one handler on the dispatch queue.
///
/// Thread safety: every operation may be called from any thread. Datagrams are decoded on the
/// receive queue; the handler runs on the dispatch queue, never inside a call to the server.
class OSCServer : public std::enable_shared_from_this<OSCServer> {
    struct Private {};

  public:
    enum class TimeTagMode {
        osc1_0,  ///< a message in a bundle tagged in the future is delivered at the tagged time
        ignore,  ///< every message is delivered at once
    };
    /// Called with each message and the time tag of its innermost bundle (immediate for a message
    /// sent on its own).
    using Handler = std::function<void(const OSCMessage&, const OSCTimeTag&)>;
    /// The same, also given the address of the datagram's sender (for a reply, say).
    using SourceHandler =
        std::function<void(const OSCMessage&, const OSCTimeTag&, const SocketAddress& sender)>;

    /// Makes a server that is not yet bound. Without a receive queue it makes its own serial
    /// queue labelled "OSCServer" at user-initiated priority.
    static std::shared_ptr<OSCServer> create(std::uint16_t port,
                                             std::shared_ptr<SerialQueue> receiveQueue,
                                             std::shared_ptr<DispatchQueue> dispatchQueue,
                                             TimeTagMode mode, Handler handler = nullptr);
    OSCServer(Private, std::uint16_t port, std::shared_ptr<SerialQueue> receiveQueue,
              std::shared_ptr<DispatchQueue> dispatchQueue, TimeTagMode mode, Handler handler);
    /// Closes the socket. Scheduled deliveries still pending then do nothing.
    ~OSCServer();
    OSCServer(const OSCServer&) = delete;
    OSCServer& operator=(const OSCServer&) = delete;

    /// The handler called by each delivery is the one in force when the delivery runs; an empty
    /// handler makes deliveries do nothing.
    void setHandler(Handler handler);
    /// Replaces the handler like setHandler, with one that learns each message's sender.
    void setSourceHandler(SourceHandler handler);
    TimeTagMode timeTagMode() const;
    void setTimeTagMode(TimeTagMode mode);
    std::uint16_t port() const;
    /// The kernel's receive buffer of the socket (see UdpSocket::setKernelReceiveBufferSize):
    /// enlarge it to ride out bursts of thousands of datagrams. Takes effect at once, also on a
    /// running server; 0 restores the default.
    void setKernelReceiveBufferSize(std::size_t bytes);

    /// What deliveries waiting for their time tag (osc1_0 mode) may hold at once: a bound on
    /// their messages and on those messages' encoded bytes. A datagram whose scheduled messages
    /// would pass either is dropped whole, never half a bundle; deliveries already admitted keep
    /// their time. The defaults allow 10,000 messages and 16 MiB.
    struct ScheduledLimit {
        std::size_t messages = 10'000;
        std::size_t bytes = 16 << 20;
    };
    void setScheduledLimit(ScheduledLimit limit);
    ScheduledLimit scheduledLimit() const;

    /// Closes the socket if open, then enables port reuse, binds the port and starts receiving.
    /// Throws the socket's UdpSocketError unchanged at the first step that fails, leaving the
    /// socket as that step left it. May be called again after a failure or a stop().
    void start();
    /// Closes the socket.
    void stop();

  private:
    friend class OSCServerDelegate;
    struct Delivery {
        OSCMessage message;
        OSCTimeTag timeTag;
        SocketAddress sender;
    };
    // Consecutive messages of one bundle that wait for its time tag: one deadline, computed
    // when the bundle is received, and delivered together in the order met.
    struct ScheduledRun {
        DispatchQueue::Clock::time_point deadline;
        OSCTimeTag timeTag;
        SocketAddress sender;
        std::vector<OSCMessage> messages;
        std::size_t bytes = 0;
    };
    // What one datagram delivers, in the order its messages are met, depth first.
    struct Plan {
        std::vector<std::variant<Delivery, ScheduledRun>> steps;
        std::size_t scheduledMessages = 0;
        std::size_t scheduledBytes = 0;
    };
    void receive(OSCPacket&& packet, const SocketAddress& sender);
    void plan(OSCPacket&& packet, const OSCTimeTag& timeTag, bool scheduled,
              DispatchQueue::Clock::time_point deadline, const SocketAddress& sender,
              Plan& plan);
    bool admit(const Plan& plan);
    DispatchQueue::Clock::time_point deadlineOf(const OSCTimeTag& tag);
    void deliverNow(std::vector<Delivery> block);
    void deliverLater(ScheduledRun&& run);
    std::shared_ptr<const SourceHandler> currentHandler() const;

    const std::shared_ptr<UdpSocket> udpServer;
    const std::shared_ptr<OSCServerDelegate> udpDelegate;
    const std::shared_ptr<SerialQueue> receiveQueue;
    const std::shared_ptr<DispatchQueue> dispatchQueue;
    mutable std::mutex handlerMutex;
    std::shared_ptr<const SourceHandler> handler;  // guarded by handlerMutex
    std::atomic<TimeTagMode> mode;
    const std::uint16_t port_;
    // Immediate deliveries decided on the receive queue, on their way to the dispatch queue;
    // touched only on the receive queue.
    DeliveryBatcher<Delivery> deliveries;
    // Admitted on the receive queue, released on the dispatch queue.
    std::atomic<std::size_t> limitMessages{ScheduledLimit{}.messages};
    std::atomic<std::size_t> limitBytes{ScheduledLimit{}.bytes};
    std::atomic<std::size_t> scheduledMessages{0};
    std::atomic<std::size_t> scheduledBytes{0};
    // The wall clock's lead over the steady clock, as last renewed; receive queue only.
    std::chrono::system_clock::duration clockOffset{};
};

}  // namespace kavrin
