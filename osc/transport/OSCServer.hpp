#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "osc/addressing/OSCAddressSpace.hpp"
#include "osc/addressing/OSCDeliveryPlanner.hpp"
#include "osc/addressing/OSCDropReason.hpp"
#include "osc/codec/OSCError.hpp"
#include "osc/codec/OSCMessage.hpp"
#include "osc/codec/OSCMessageView.hpp"
#include "osc/codec/OSCPacket.hpp"
#include "osc/codec/OSCTextPolicy.hpp"
#include "osc/codec/OSCTimeTag.hpp"
#include "osc/dispatch/DispatchQueue.hpp"
#include "osc/dispatch/SerialQueue.hpp"
#include "osc/transport/SocketAddress.hpp"

namespace kavrin {

class UdpSocket;
class UdpDatagramBlock;
class OSCServerDelegate;

/// Receives OSC packets on one UDP port (IPv4 and IPv6, all interfaces, port reuse on) and hands
/// every message in them, bundles opened depth first, to one handler on the dispatch queue, and
/// to the methods added for the addresses its pattern matches.
///
/// Thread safety: every operation may be called from any thread. Datagrams are decoded on the
/// receive queue, where the view handler runs; the handler, the methods and the drop and
/// mismatch handlers run on the dispatch queue. No handler runs inside a call to the server.
/// The immediate deliveries of the datagrams the socket read in one turn reach the dispatch
/// queue together, as one work item, in order.
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

    /// Called on the receive queue with each message read in place, bundles opened depth first,
    /// as soon as its datagram is read, whatever the time-tag mode: no copy and no allocation.
    /// The view and the sender are valid only during the call.
    using ViewHandler = std::function<void(const OSCMessageView& message, const OSCTimeTag&,
                                           const SocketAddress& sender)>;
    /// Runs besides the handler and the methods. While a view handler is set and neither a
    /// handler nor a method is, messages are not decoded into owned ones at all: a handler set
    /// then sees the messages received after it.
    void setViewHandler(ViewHandler handler);
    TimeTagMode timeTagMode() const;
    void setTimeTagMode(TimeTagMode mode);
    /// What string arguments may hold (OSCTextPolicy): ascii, the default, drops a datagram
    /// with UTF-8 in a string as malformed; utf8 delivers it. Takes effect from the next
    /// datagram.
    OSCTextPolicy textPolicy() const;
    void setTextPolicy(OSCTextPolicy policy);
    /// The port asked for at creation.
    std::uint16_t port() const;
    /// The port the socket is bound to once started, 0 before: what the kernel chose for port 0,
    /// the same number on IPv4 and IPv6.
    std::uint16_t boundPort() const;
    /// The kernel's receive buffer of the socket (see UdpSocket::setKernelReceiveBufferSize):
    /// enlarge it to ride out bursts of thousands of datagrams. Takes effect at once, also on a
    /// running server; 0 restores the default.
    void setKernelReceiveBufferSize(std::size_t bytes);
    /// What the socket reads ahead of a receive or dispatch queue that falls behind (see
    /// UdpSocket::setMaxReceiveBacklog); past it, what comes waits in the kernel's buffer.
    void setMaxReceiveBacklog(std::size_t bytes);

    /// What deliveries waiting for their time tag (osc1_0 mode) may hold at once: a bound on
    /// their messages and on those messages' encoded bytes. A datagram whose scheduled messages
    /// would pass either is dropped whole, never half a bundle; deliveries already admitted keep
    /// their time. The defaults allow 10,000 messages and 16 MiB.
    using ScheduledLimit = OSCScheduledLimit;
    void setScheduledLimit(ScheduledLimit limit);
    ScheduledLimit scheduledLimit() const;

    /// A method's handler: the message, and the time tag of its innermost bundle.
    using MethodHandler = std::function<void(const OSCMessage&, const OSCTimeTag&)>;
    using MethodID = OSCAddressSpace::MethodID;
    /// Routes to `handler`, besides the handler above, every message whose pattern matches the
    /// concrete `address`, with the address space's matching and order (wildcards in `address`
    /// are taken literally). The routes are found when a message is received and run with its
    /// delivery. Adding an address again keeps its id and replaces its handler. Methods may be
    /// added and removed from any thread while the server runs.
    MethodID addMethod(std::string_view address, MethodHandler handler);
    /// The same for a handler of typed values: the message's values as `Kinds` (see
    /// OSCValueMask.hpp), `function` called with them. A message whose values do not fit is
    /// not passed on: it is counted (Counters::mismatches) and given to the mismatch handler.
    template <class... Kinds, class Function>
    requires(sizeof...(Kinds) > 0) MethodID addMethod(std::string_view address, Function function);
    bool removeMethod(const MethodID& id);
    bool removeMethod(std::string_view address);
    /// Runs on the dispatch queue for each message a typed method could not take.
    using MismatchHandler = std::function<void(const OSCMessage&, const OSCValueMaskError&)>;
    void setMismatchHandler(MismatchHandler handler);

    /// What the server has seen since it was made, readable at any time from any thread.
    struct Counters {
        std::uint64_t datagramsReceived = 0;
        std::uint64_t messagesDelivered = 0;  ///< to the handler or a method
        std::uint64_t messagesViewed = 0;     ///< to the view handler
        std::uint64_t droppedNotOSC = 0;      ///< neither a message nor a bundle
        std::uint64_t droppedMalformed = 0;   ///< decoding failed: OSCDecodeError::Case::malformed
        std::uint64_t droppedUnexpectedType = 0;
        std::uint64_t droppedInternalInconsistency = 0;
        std::uint64_t droppedOverScheduledLimit = 0;  ///< see ScheduledLimit
        std::uint64_t mismatches = 0;                 ///< messages a typed method could not take
    };
    Counters counters() const;

    using DropReason = OSCDropReason;
    /// Given each datagram the server drops, with why (the decoder's text, empty for one that is
    /// not OSC). Runs on the dispatch queue, with a copy of the datagram of its own. Without one,
    /// dropped datagrams go silently, as the monitor wants them.
    using DropHandler =
        std::function<void(std::span<const std::uint8_t> datagram, const SocketAddress& sender,
                           DropReason reason, const std::string& error)>;
    void setDropHandler(DropHandler handler);

    /// Sends `packet` from the server's own socket, bound to its port, so that a peer that
    /// answers the sender reaches this server: to `host` (a name or a numeric address, resolved
    /// off the caller's thread) and `port`, or to `to`, a sender as the source handler gave it.
    /// Encodes under the text policy, queues and returns at once; the socket owns the bytes
    /// from then on. Throws OSCEncodeError when the packet cannot be encoded, and
    /// UdpSocketError before start() has bound the port or after stop(); nothing is sent then.
    /// As with a plain OSCClient, name and send failures are not reported.
    void send(const OSCPacket& packet, const std::string& host, std::uint16_t port);
    void send(const OSCPacket& packet, const SocketAddress& to);

    /// Closes the socket if open, then enables port reuse, binds the port and starts receiving.
    /// Throws the socket's UdpSocketError unchanged at the first step that fails, leaving the
    /// socket as that step left it. May be called again after a failure or a stop().
    void start();
    /// Closes the socket.
    void stop();

  private:
    friend class OSCServerDelegate;
    using Planner = OSCDeliveryPlanner<SocketAddress>;
    using Routes = Planner::Routes;
    using Delivery = Planner::Delivery;
    using ScheduledRun = Planner::ScheduledRun;
    struct Handlers;
    struct State;

    // The encoded packet, once the socket is known to be bound; throws as send() says.
    std::vector<std::uint8_t> sendable(const OSCPacket& packet) const;
    void receive(const UdpDatagramBlock& block);
    // Hands each message of the packet to the view handler, adding their count to `viewed`;
    // false for bytes that are not OSC, throws OSCDecodeError for a malformed packet.
    bool view(std::span<const std::uint8_t> datagram, const SocketAddress& sender,
              const ViewHandler& handler, OSCTextPolicy policy, std::uint64_t& viewed);
    // Decodes the datagram, shared with its block, into the turn's deliveries.
    void plan(const UdpDatagramBlock& block, std::size_t index, OSCTextPolicy policy,
              std::vector<Delivery>& turn);
    void drop(std::span<const std::uint8_t> datagram, const SocketAddress& sender,
              DropReason reason, const std::string& error);
    void deliverNow(std::vector<Delivery> block);
    void deliverLater(ScheduledRun&& run);
    // Calls the handler and the routes; `cache` holds the handlers a run of deliveries last
    // read, with their generation.
    void deliver(const OSCMessage& message, const Routes& routes, const OSCTimeTag& timeTag,
                 const SocketAddress& sender, std::pair<std::uint64_t, Handlers>& cache);
    Handlers currentHandlers() const;
    void setHandlers(const std::function<void(Handlers&)>& change);
    void mismatch(const OSCMessage& message, const OSCValueMaskError& error);

    const std::unique_ptr<State> d_;
};

template <class... Kinds, class Function>
requires(sizeof...(Kinds) > 0) OSCServer::MethodID OSCServer::addMethod(std::string_view address,
                                                                        Function function) {
    return addMethod(address, MethodHandler([this, function = std::move(function)](
                                                const OSCMessage& message, const OSCTimeTag&) {
                         std::optional<std::tuple<Kinds...>> values;
                         try {
                             values = message.masked<Kinds...>();
                         } catch (const OSCValueMaskError& error) {
                             mismatch(message,
                                      error);  // the server outlives every delivery that runs
                             return;
                         }
                         std::apply(function, std::move(*values));
                     }));
}

}  // namespace kavrin
