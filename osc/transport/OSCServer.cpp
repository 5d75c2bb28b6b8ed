#include "osc/transport/OSCServer.hpp"

#include <atomic>
#include <mutex>
#include <optional>
#include <variant>

#include "osc/codec/OSCPacketView.hpp"
#include "osc/codec/OSCMessageViews.hpp"
#include "osc/transport/UdpDatagramBlock.hpp"
#include "osc/transport/UdpSocket.hpp"
#include "osc/transport/UdpSocketError.hpp"

namespace kavrin {

namespace {

// One timeout for every datagram sent, as the client's.
constexpr double sendTimeout = 1.0;

std::shared_ptr<const OSCServer::SourceHandler> withSource(OSCServer::Handler handler) {
    if (!handler) return nullptr;
    return std::make_shared<const OSCServer::SourceHandler>(
        [handler = std::move(handler)](const OSCMessage& message, const OSCTimeTag& timeTag,
                                       const SocketAddress&) { handler(message, timeTag); });
}

}  // namespace

// Takes the server's datagrams from its socket, a turn's block at a time, so that the socket
// (which holds its delegate weakly and is owned by the server) never keeps the server alive.
// Called on the receive queue.
class OSCServerDelegate final : public UdpSocketDelegate {
  public:
    void udpSocketDidReceiveBlock(UdpSocket&, UdpDatagramBlock block) override {
        if (auto server = oscServer.lock()) server->receive(block);
    }

    // Set once, before the socket learns of this delegate.
    std::weak_ptr<OSCServer> oscServer;
};

// The handlers that a delivery reads when it runs, renewed only when one is set: reading them
// under the lock for every message would cost more than the message.
struct OSCServer::Handlers {
    std::shared_ptr<const SourceHandler> handler;
    std::shared_ptr<const ViewHandler> view;
    std::shared_ptr<const MismatchHandler> mismatch;
    std::shared_ptr<const DropHandler> drop;
};

struct OSCServer::State {
    State(std::uint16_t port, std::shared_ptr<SerialQueue> receiveQueue,
          std::shared_ptr<DispatchQueue> dispatchQueue, TimeTagMode mode,
          std::shared_ptr<const SourceHandler> handler)
        : receiveQueue_(std::move(receiveQueue)),
          dispatchQueue_(std::move(dispatchQueue)),
          handlers_{std::move(handler), nullptr, nullptr, nullptr},
          mode_(mode),
          port_(port) {}

    const std::shared_ptr<UdpSocket> socket_ = UdpSocket::create();
    const std::shared_ptr<OSCServerDelegate> socketDelegate_ =
        std::make_shared<OSCServerDelegate>();
    const std::shared_ptr<SerialQueue> receiveQueue_;
    const std::shared_ptr<DispatchQueue> dispatchQueue_;
    mutable std::mutex handlerMutex_;
    Handlers handlers_;  // guarded by handlerMutex_
    std::atomic<std::uint64_t> handlerGeneration_{1};
    std::atomic<bool> hasDropHandler_{false};
    std::atomic<TimeTagMode> mode_;
    std::atomic<OSCTextPolicy> textPolicy_{OSCTextPolicy::ascii};
    const std::uint16_t port_;
    // Touched only on the receive queue: the routes, and the handlers as a block last read them.
    OSCMethodRoutes routes_;
    std::pair<std::uint64_t, Handlers> receiving_{0, {}};
    Planner planner_;
    std::atomic<std::uint64_t> datagramsReceived_{0}, messagesDelivered_{0}, messagesViewed_{0},
        mismatches_{0};
    OSCDropTally dropped_;
    // The block being received: what it posts holds the socket's backlog until run.
    std::shared_ptr<const void> receivingHold_;
};

std::shared_ptr<OSCServer> OSCServer::create(std::uint16_t port,
                                             std::shared_ptr<SerialQueue> receiveQueue,
                                             std::shared_ptr<DispatchQueue> dispatchQueue,
                                             TimeTagMode mode, Handler handler) {
    auto server = std::make_shared<OSCServer>(Private{}, port, std::move(receiveQueue),
                                              std::move(dispatchQueue), mode, std::move(handler));
    auto& d = *server->d_;
    // The back-reference is in place before the socket can call its delegate.
    d.socketDelegate_->oscServer = server;
    d.socket_->setDelegateQueue(d.receiveQueue_);
    d.socket_->setDelegate(d.socketDelegate_);
    return server;
}

OSCServer::OSCServer(Private, std::uint16_t port, std::shared_ptr<SerialQueue> receiveQueue,
                     std::shared_ptr<DispatchQueue> dispatchQueue, TimeTagMode mode,
                     Handler handler)
    : d_(std::make_unique<State>(port,
                                 receiveQueue ? std::move(receiveQueue)
                                              : SerialQueue::create(
                                                    "OSCServer", QualityOfService::userInitiated),
                                 std::move(dispatchQueue), mode, withSource(std::move(handler)))) {}

OSCServer::~OSCServer() {
    d_->socket_->close();
}

void OSCServer::setHandlers(const std::function<void(Handlers&)>& change) {
    std::lock_guard lock(d_->handlerMutex_);
    change(d_->handlers_);
    d_->hasDropHandler_ = d_->handlers_.drop != nullptr;
    ++d_->handlerGeneration_;
}

OSCServer::Handlers OSCServer::currentHandlers() const {
    std::lock_guard lock(d_->handlerMutex_);
    return d_->handlers_;
}

void OSCServer::setHandler(Handler newHandler) {
    auto stored = withSource(std::move(newHandler));
    setHandlers([&](Handlers& h) { h.handler = std::move(stored); });
}

void OSCServer::setSourceHandler(SourceHandler newHandler) {
    auto stored =
        newHandler ? std::make_shared<const SourceHandler>(std::move(newHandler)) : nullptr;
    setHandlers([&](Handlers& h) { h.handler = std::move(stored); });
}

void OSCServer::setViewHandler(ViewHandler newHandler) {
    auto stored = newHandler ? std::make_shared<const ViewHandler>(std::move(newHandler)) : nullptr;
    setHandlers([&](Handlers& h) { h.view = std::move(stored); });
}

void OSCServer::setMismatchHandler(MismatchHandler newHandler) {
    auto stored =
        newHandler ? std::make_shared<const MismatchHandler>(std::move(newHandler)) : nullptr;
    setHandlers([&](Handlers& h) { h.mismatch = std::move(stored); });
}

void OSCServer::setDropHandler(DropHandler newHandler) {
    auto stored = newHandler ? std::make_shared<const DropHandler>(std::move(newHandler)) : nullptr;
    setHandlers([&](Handlers& h) { h.drop = std::move(stored); });
}

// The d_->routes_ are the receive queue's: a change waits for the datagram being routed.
OSCServer::MethodID OSCServer::addMethod(std::string_view address, MethodHandler handler) {
    MethodID id;
    d_->receiveQueue_->sync([&] { id = d_->routes_.add(address, std::move(handler)); });
    return id;
}

bool OSCServer::removeMethod(const MethodID& id) {
    bool removed = false;
    d_->receiveQueue_->sync([&] { removed = d_->routes_.remove(id); });
    return removed;
}

bool OSCServer::removeMethod(std::string_view address) {
    bool removed = false;
    d_->receiveQueue_->sync([&] { removed = d_->routes_.remove(address); });
    return removed;
}

OSCServer::Counters OSCServer::counters() const {
    const State& d = *d_;
    return {d.datagramsReceived_.load(),
            d.messagesDelivered_.load(),
            d.messagesViewed_.load(),
            d.dropped_[OSCDropReason::notOSC],
            d.dropped_[OSCDropReason::malformed],
            d.dropped_[OSCDropReason::unexpectedType],
            d.dropped_[OSCDropReason::internalInconsistency],
            d.dropped_[OSCDropReason::overScheduledLimit],
            d.mismatches_.load()};
}

void OSCServer::mismatch(const OSCMessage& message, const OSCValueMaskError& error) {
    ++d_->mismatches_;
    if (const auto handler = currentHandlers().mismatch) (*handler)(message, error);
}

OSCServer::TimeTagMode OSCServer::timeTagMode() const {
    return d_->mode_.load();
}

void OSCServer::setTimeTagMode(TimeTagMode newMode) {
    // Any value outside the two cases counts as honouring time tags.
    d_->mode_.store(newMode == TimeTagMode::ignore ? TimeTagMode::ignore : TimeTagMode::osc1_0);
}

std::uint16_t OSCServer::port() const {
    return d_->port_;
}

std::uint16_t OSCServer::boundPort() const {
    // Both families share the port; IPv4 may be off.
    const auto port = d_->socket_->localPortIPv4();
    return port != 0 ? port : d_->socket_->localPortIPv6();
}

void OSCServer::setKernelReceiveBufferSize(std::size_t bytes) {
    // Best effort: a refused size leaves the kernel's previous one, and d_->receiving_ goes on.
    d_->socket_->setKernelReceiveBufferSize(bytes);
}

void OSCServer::setMaxReceiveBacklog(std::size_t bytes) {
    d_->socket_->setMaxReceiveBacklog(bytes);
}

void OSCServer::start() {
    d_->socket_->close();
    UdpSocketError error;
    if (!d_->socket_->enableReusePort(true, &error)) throw error;
    if (!d_->socket_->bindToPort(d_->port_, &error)) throw error;
    if (!d_->socket_->beginReceiving(&error)) throw error;
}

void OSCServer::stop() {
    d_->socket_->close();
}

OSCTextPolicy OSCServer::textPolicy() const {
    return d_->textPolicy_.load();
}

void OSCServer::setTextPolicy(OSCTextPolicy policy) {
    d_->textPolicy_.store(policy);
}

// An unbound socket would bind a port of its own to send: the point is to send from this one.
std::vector<std::uint8_t> OSCServer::sendable(const OSCPacket& packet) const {
    auto bytes = packet.rawData(textPolicy());
    if (boundPort() == 0) {
        throw UdpSocketError::badConfigError("The OSC server on port " + std::to_string(d_->port_) +
                                             " is not running.");
    }
    return bytes;
}

void OSCServer::send(const OSCPacket& packet, const std::string& host, std::uint16_t port) {
    d_->socket_->sendData(sendable(packet), host, port, sendTimeout, 0);
}

void OSCServer::send(const OSCPacket& packet, const SocketAddress& to) {
    d_->socket_->sendData(sendable(packet), to, sendTimeout, 0);
}

void OSCServer::setScheduledLimit(ScheduledLimit limit) {
    d_->planner_.setLimit(limit);
}

OSCServer::ScheduledLimit OSCServer::scheduledLimit() const {
    return d_->planner_.limit();
}

// A datagram that fails to decode is dropped like one that is not OSC at all: counted, given to
// the drop handler if there is one, and otherwise gone without a word. The block's immediate
// deliveries leave for the dispatch queue together, as one work item.
void OSCServer::receive(const UdpDatagramBlock& block) {
    if (const auto generation = d_->handlerGeneration_.load(); generation != d_->receiving_.first) {
        d_->receiving_ = {generation, currentHandlers()};
    }
    const ViewHandler* viewHandler = d_->receiving_.second.view.get();
    const bool owned = !viewHandler || d_->receiving_.second.handler || !d_->routes_.empty();
    const auto policy = d_->textPolicy_.load();
    d_->receivingHold_ = block.hold();
    std::vector<Delivery> turn;
    if (owned) turn.reserve(block.size());
    // Counted once a block: an atomic add per datagram is a measurable share of a drain.
    d_->datagramsReceived_ += block.size();
    std::uint64_t viewed = 0;
    for (std::size_t i = 0; i < block.size(); ++i) {
        const auto& datagram = block[i];
        const auto bytes = block.bytes(datagram);
        try {
            if (viewHandler && !view(bytes, datagram.address, *viewHandler, policy, viewed)) {
                drop(bytes, datagram.address, DropReason::notOSC, {});
                continue;
            }
            if (owned) plan(block, i, policy, turn);
        } catch (const OSCDecodeError& error) {
            drop(bytes, datagram.address, dropReasonOf(error), error.what());
        }
    }
    d_->messagesViewed_ += viewed;
    if (!turn.empty()) deliverNow(std::move(turn));
    d_->receivingHold_.reset();
}

bool OSCServer::view(std::span<const std::uint8_t> datagram, const SocketAddress& sender,
                     const ViewHandler& handler, OSCTextPolicy policy, std::uint64_t& viewed) {
    const auto packet = OSCPacketView::decode(datagram, policy);
    if (!packet) return false;
    viewed += forEachMessageView(
        *packet, [&](const OSCMessageView& message, const OSCTimeTag& timeTag) {
            handler(message, timeTag, sender);
        });
    return true;
}

void OSCServer::plan(const UdpDatagramBlock& block, std::size_t index, OSCTextPolicy policy,
                     std::vector<Delivery>& turn) {
    const auto& datagram = block[index];
    auto packet = OSCPacket::decode(block.share(datagram), datagram.size, policy);
    if (!packet) {
        drop(block.bytes(datagram), datagram.address, DropReason::notOSC, {});
        return;
    }
    // Most datagrams are one message, delivered at once: no plan to make.
    if (auto* message = std::get_if<OSCMessage>(&*packet)) {
        Routes found =
            d_->routes_.empty() ? Routes{} : d_->routes_.routesFor(message->addressPattern);
        turn.push_back({std::move(*message), OSCTimeTag::immediate(), datagram.address,
                        std::move(found)});
        return;
    }
    const bool admitted = d_->planner_.admitAll(
        std::move(*packet), d_->mode_.load() == TimeTagMode::osc1_0, datagram.address, d_->routes_,
        [&turn](Delivery&& now) { turn.push_back(std::move(now)); },
        [this](ScheduledRun&& later) { deliverLater(std::move(later)); });
    if (!admitted) {
        drop(block.bytes(datagram), datagram.address, DropReason::overScheduledLimit, {});
    }
}

void OSCServer::drop(std::span<const std::uint8_t> datagram, const SocketAddress& sender,
                     DropReason reason, const std::string& error) {
    d_->dropped_.add(reason);
    if (!d_->hasDropHandler_.load()) return;
    d_->dispatchQueue_->async([self = shared_from_this(),
                          copy = std::vector<std::uint8_t>(datagram.begin(), datagram.end()),
                          sender, reason, error, hold = d_->receivingHold_] {
        if (const auto handler = self->currentHandlers().drop) {
            (*handler)(copy, sender, reason, error);
        }
    });
}

void OSCServer::deliver(const OSCMessage& message, const Routes& found, const OSCTimeTag& timeTag,
                        const SocketAddress& sender, std::pair<std::uint64_t, Handlers>& cache) {
    // The handler in force when the delivery runs is the one called.
    if (const auto generation = d_->handlerGeneration_.load(); generation != cache.first) {
        cache = {generation, currentHandlers()};
    }
    const auto& handler = cache.second.handler;
    if (handler) (*handler)(message, timeTag, sender);
    for (const auto& route : found) (*route)(message, timeTag);
    if (handler || !found.empty()) ++d_->messagesDelivered_;
}

// Holds the server strongly: a delivery already decided runs even if the owner lets go.
// The block's hold keeps the socket from reading past its backlog while the turn waits for a
// busy dispatch queue.
void OSCServer::deliverNow(std::vector<Delivery> batch) {
    d_->dispatchQueue_->async([self = shared_from_this(), batch = std::move(batch),
                               hold = d_->receivingHold_] {
        std::pair<std::uint64_t, Handlers> cache{0, {}};
        for (const auto& delivery : batch) {
            self->deliver(delivery.message, delivery.routes, delivery.timeTag, delivery.origin,
                          cache);
        }
    });
}

// Holds the server weakly, deliberately unlike deliverNow: a scheduled delivery must not keep a
// released server alive until its time comes.
void OSCServer::deliverLater(ScheduledRun&& run) {
    const auto deadline = run.deadline;
    d_->dispatchQueue_->asyncAfter(deadline, [weak = weak_from_this(), run = std::move(run)] {
        auto self = weak.lock();
        if (!self) return;
        self->d_->planner_.release(run);
        std::pair<std::uint64_t, Handlers> cache{0, {}};
        for (const auto& [message, found] : run.messages) {
            self->deliver(message, found, run.timeTag, run.origin, cache);
        }
    });
}

}  // namespace kavrin
