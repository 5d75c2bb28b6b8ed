#include "osc/transport/OSCServer.hpp"

#include <optional>
#include <variant>

#include "osc/codec/OSCPacketView.hpp"
#include "osc/transport/detail/OSCMessageViews.hpp"
#include "osc/transport/UdpDatagramBlock.hpp"
#include "osc/transport/UdpSocket.hpp"
#include "osc/transport/UdpSocketError.hpp"

namespace kavrin {

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

std::shared_ptr<OSCServer> OSCServer::create(std::uint16_t port,
                                             std::shared_ptr<SerialQueue> receiveQueue,
                                             std::shared_ptr<DispatchQueue> dispatchQueue,
                                             TimeTagMode mode, Handler handler) {
    auto server = std::make_shared<OSCServer>(Private{}, port, std::move(receiveQueue),
                                              std::move(dispatchQueue), mode, std::move(handler));
    // The back-reference is in place before the socket can call its delegate.
    server->udpDelegate->oscServer = server;
    server->udpServer->setDelegateQueue(server->receiveQueue);
    server->udpServer->setDelegate(server->udpDelegate);
    return server;
}

OSCServer::OSCServer(Private, std::uint16_t port, std::shared_ptr<SerialQueue> receiveQueue,
                     std::shared_ptr<DispatchQueue> dispatchQueue, TimeTagMode mode,
                     Handler handler)
    : udpServer(UdpSocket::create()),
      udpDelegate(std::make_shared<OSCServerDelegate>()),
      receiveQueue(receiveQueue
                       ? std::move(receiveQueue)
                       : SerialQueue::create("OSCServer", QualityOfService::userInitiated)),
      dispatchQueue(std::move(dispatchQueue)),
      handlers{withSource(std::move(handler)), nullptr, nullptr, nullptr},
      mode(mode),
      port_(port) {}

OSCServer::~OSCServer() {
    udpServer->close();
}

void OSCServer::setHandlers(const std::function<void(Handlers&)>& change) {
    std::lock_guard lock(handlerMutex);
    change(handlers);
    hasDropHandler = handlers.drop != nullptr;
    ++handlerGeneration;
}

OSCServer::Handlers OSCServer::currentHandlers() const {
    std::lock_guard lock(handlerMutex);
    return handlers;
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

// The routes are the receive queue's: a change waits for the datagram being routed.
OSCServer::MethodID OSCServer::addMethod(std::string_view address, MethodHandler handler) {
    MethodID id;
    receiveQueue->sync([&] { id = routes.add(address, std::move(handler)); });
    return id;
}

bool OSCServer::removeMethod(const MethodID& id) {
    bool removed = false;
    receiveQueue->sync([&] { removed = routes.remove(id); });
    return removed;
}

bool OSCServer::removeMethod(std::string_view address) {
    bool removed = false;
    receiveQueue->sync([&] { removed = routes.remove(address); });
    return removed;
}

OSCServer::Counters OSCServer::counters() const {
    return {counted.datagramsReceived.load(),
            counted.messagesDelivered.load(),
            counted.messagesViewed.load(),
            counted.droppedNotOSC.load(),
            counted.droppedMalformed.load(),
            counted.droppedUnexpectedType.load(),
            counted.droppedInternalInconsistency.load(),
            counted.droppedOverScheduledLimit.load(),
            counted.mismatches.load()};
}

void OSCServer::mismatch(const OSCMessage& message, const OSCValueMaskError& error) {
    ++counted.mismatches;
    if (const auto handler = currentHandlers().mismatch) (*handler)(message, error);
}

OSCServer::TimeTagMode OSCServer::timeTagMode() const {
    return mode.load();
}

void OSCServer::setTimeTagMode(TimeTagMode newMode) {
    // Any value outside the two cases counts as honouring time tags.
    mode.store(newMode == TimeTagMode::ignore ? TimeTagMode::ignore : TimeTagMode::osc1_0);
}

std::uint16_t OSCServer::port() const {
    return port_;
}

std::uint16_t OSCServer::boundPort() const {
    // Both families share the port; IPv4 may be off.
    const auto port = udpServer->localPortIPv4();
    return port != 0 ? port : udpServer->localPortIPv6();
}

void OSCServer::setKernelReceiveBufferSize(std::size_t bytes) {
    // Best effort: a refused size leaves the kernel's previous one, and receiving goes on.
    udpServer->setKernelReceiveBufferSize(bytes);
}

void OSCServer::start() {
    udpServer->close();
    UdpSocketError error;
    if (!udpServer->enableReusePort(true, &error)) throw error;
    if (!udpServer->bindToPort(port_, &error)) throw error;
    if (!udpServer->beginReceiving(&error)) throw error;
}

void OSCServer::stop() {
    udpServer->close();
}

OSCTextPolicy OSCServer::textPolicy() const {
    return textPolicy_.load();
}

void OSCServer::setTextPolicy(OSCTextPolicy policy) {
    textPolicy_.store(policy);
}

// An unbound socket would bind a port of its own to send: the point is to send from this one.
std::vector<std::uint8_t> OSCServer::sendable(const OSCPacket& packet) const {
    auto bytes = packet.rawData(textPolicy());
    if (boundPort() == 0) {
        throw UdpSocketError::badConfigError("The OSC server on port " + std::to_string(port_) +
                                             " is not running.");
    }
    return bytes;
}

void OSCServer::send(const OSCPacket& packet, const std::string& host, std::uint16_t port) {
    udpServer->sendData(sendable(packet), host, port, sendTimeout, 0);
}

void OSCServer::send(const OSCPacket& packet, const SocketAddress& to) {
    udpServer->sendData(sendable(packet), to, sendTimeout, 0);
}

void OSCServer::setScheduledLimit(ScheduledLimit limit) {
    planner.setLimit(limit);
}

OSCServer::ScheduledLimit OSCServer::scheduledLimit() const {
    return planner.limit();
}

// A datagram that fails to decode is dropped like one that is not OSC at all: counted, given to
// the drop handler if there is one, and otherwise gone without a word. The block's immediate
// deliveries leave for the dispatch queue together, as one work item.
void OSCServer::receive(const UdpDatagramBlock& block) {
    if (const auto generation = handlerGeneration.load(); generation != receiving.first) {
        receiving = {generation, currentHandlers()};
    }
    const ViewHandler* viewHandler = receiving.second.view.get();
    const bool owned = !viewHandler || receiving.second.handler || !routes.empty();
    const auto policy = textPolicy_.load();
    std::vector<Delivery> turn;
    if (owned) turn.reserve(block.size());
    for (std::size_t i = 0; i < block.size(); ++i) {
        const auto& datagram = block[i];
        const auto bytes = block.bytes(datagram);
        ++counted.datagramsReceived;
        try {
            if (viewHandler && !view(bytes, datagram.address, *viewHandler, policy)) {
                drop(bytes, datagram.address, DropReason::notOSC, {});
                continue;
            }
            if (owned) plan(block, i, policy, turn);
        } catch (const OSCDecodeError& error) {
            const auto reason = error.errorCase() == OSCDecodeError::Case::malformed
                                    ? DropReason::malformed
                                : error.errorCase() == OSCDecodeError::Case::unexpectedType
                                    ? DropReason::unexpectedType
                                    : DropReason::internalInconsistency;
            drop(bytes, datagram.address, reason, error.what());
        }
    }
    if (!turn.empty()) deliverNow(std::move(turn));
}

bool OSCServer::view(std::span<const std::uint8_t> datagram, const SocketAddress& sender,
                     const ViewHandler& handler, OSCTextPolicy policy) {
    const auto packet = OSCPacketView::decode(datagram, policy);
    if (!packet) return false;
    counted.messagesViewed += forEachMessageView(
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
        Routes found = routes.empty() ? Routes{} : routes.routesFor(message->addressPattern);
        turn.push_back({std::move(*message), OSCTimeTag::immediate(), datagram.address,
                        std::move(found)});
        return;
    }
    const bool admitted = planner.admitAll(
        std::move(*packet), mode.load() == TimeTagMode::osc1_0, datagram.address, routes,
        [&turn](Delivery&& now) { turn.push_back(std::move(now)); },
        [this](ScheduledRun&& later) { deliverLater(std::move(later)); });
    if (!admitted) {
        drop(block.bytes(datagram), datagram.address, DropReason::overScheduledLimit, {});
    }
}

void OSCServer::drop(std::span<const std::uint8_t> datagram, const SocketAddress& sender,
                     DropReason reason, const std::string& error) {
    switch (reason) {
        case DropReason::notOSC:
            ++counted.droppedNotOSC;
            break;
        case DropReason::malformed:
            ++counted.droppedMalformed;
            break;
        case DropReason::unexpectedType:
            ++counted.droppedUnexpectedType;
            break;
        case DropReason::internalInconsistency:
            ++counted.droppedInternalInconsistency;
            break;
        case DropReason::overScheduledLimit:
            ++counted.droppedOverScheduledLimit;
            break;
    }
    if (!hasDropHandler.load()) return;
    dispatchQueue->async([self = shared_from_this(),
                          copy = std::vector<std::uint8_t>(datagram.begin(), datagram.end()),
                          sender, reason, error] {
        if (const auto handler = self->currentHandlers().drop) {
            (*handler)(copy, sender, reason, error);
        }
    });
}

void OSCServer::deliver(const OSCMessage& message, const Routes& found, const OSCTimeTag& timeTag,
                        const SocketAddress& sender, std::pair<std::uint64_t, Handlers>& cache) {
    // The handler in force when the delivery runs is the one called.
    if (const auto generation = handlerGeneration.load(); generation != cache.first) {
        cache = {generation, currentHandlers()};
    }
    const auto& handler = cache.second.handler;
    if (handler) (*handler)(message, timeTag, sender);
    for (const auto& route : found) (*route)(message, timeTag);
    if (handler || !found.empty()) ++counted.messagesDelivered;
}

// Holds the server strongly: a delivery already decided runs even if the owner lets go.
void OSCServer::deliverNow(std::vector<Delivery> batch) {
    dispatchQueue->async([self = shared_from_this(), batch = std::move(batch)] {
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
    dispatchQueue->asyncAfter(deadline, [weak = weak_from_this(), run = std::move(run)] {
        auto self = weak.lock();
        if (!self) return;
        self->planner.release(run);
        std::pair<std::uint64_t, Handlers> cache{0, {}};
        for (const auto& [message, found] : run.messages) {
            self->deliver(message, found, run.timeTag, run.origin, cache);
        }
    });
}

}  // namespace kavrin
