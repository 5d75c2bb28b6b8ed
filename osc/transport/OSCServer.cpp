#include "osc/transport/OSCServer.hpp"

#include <chrono>
#include <variant>

#include "osc/transport/OSCServerDelegate.hpp"
#include "osc/transport/UdpSocket.hpp"
#include "osc/transport/UdpSocketError.hpp"

namespace kavrin {

namespace {

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
      udpDelegate(std::make_shared<OSCServerDelegate>(OSCServerDelegate::Private{})),
      receiveQueue(receiveQueue
                       ? std::move(receiveQueue)
                       : SerialQueue::create("OSCServer", QualityOfService::userInitiated)),
      dispatchQueue(std::move(dispatchQueue)),
      handler(withSource(std::move(handler))),
      mode(mode),
      port_(port) {}

OSCServer::~OSCServer() {
    udpServer->close();
}

void OSCServer::setHandler(Handler newHandler) {
    auto stored = withSource(std::move(newHandler));
    std::lock_guard lock(handlerMutex);
    handler = std::move(stored);
}

void OSCServer::setSourceHandler(SourceHandler newHandler) {
    auto stored =
        newHandler ? std::make_shared<const SourceHandler>(std::move(newHandler)) : nullptr;
    std::lock_guard lock(handlerMutex);
    handler = std::move(stored);
}

std::shared_ptr<const OSCServer::SourceHandler> OSCServer::currentHandler() const {
    std::lock_guard lock(handlerMutex);
    return handler;
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

// A bundle's own tag governs its elements, whatever tag it was reached with.
void OSCServer::handle(OSCPacket&& packet, const OSCTimeTag& timeTag, const SocketAddress& sender) {
    if (auto* bundle = std::get_if<OSCBundle>(&packet)) {
        for (auto& element : bundle->elements) handle(std::move(element), bundle->timeTag, sender);
        return;
    }
    Delivery delivery{std::move(std::get<OSCMessage>(packet)), timeTag, sender};
    if (mode.load() == TimeTagMode::osc1_0 && !timeTag.isImmediate() && timeTag.isFuture()) {
        deliverLater(std::move(delivery));
    } else {
        deliverNow(std::move(delivery));
    }
}

// Deliveries are gathered while the receive queue works through the datagrams the socket read
// in one go, and handed to the dispatch queue in blocks of up to 64 (a hop per message would
// cost more than decoding it), the rest right after that work. The order is unchanged.
void OSCServer::deliverNow(Delivery&& delivery) {
    constexpr std::size_t kBlock = 64;
    if (undelivered.empty()) {
        receiveQueue->async([self = shared_from_this()] { self->flushDeliveries(); });
        undelivered.reserve(kBlock);
    }
    undelivered.push_back(std::move(delivery));
    if (undelivered.size() == kBlock) flushDeliveries();
}

// Holds the server strongly: a delivery already decided runs even if the owner lets go.
void OSCServer::flushDeliveries() {
    if (undelivered.empty()) return;
    auto batch = std::move(undelivered);
    undelivered = {};
    dispatchQueue->async([self = shared_from_this(), batch = std::move(batch)] {
        for (const auto& delivery : batch) {
            if (auto current = self->currentHandler()) {
                (*current)(delivery.message, delivery.timeTag, delivery.sender);
            }
        }
    });
}

// Holds the server weakly, deliberately unlike deliverNow: a scheduled delivery must not keep a
// released server alive until its time comes.
void OSCServer::deliverLater(Delivery&& delivery) {
    const std::chrono::duration<double> delay =
        delivery.timeTag.date() - std::chrono::system_clock::now();
    const auto deadline = DispatchQueue::Clock::now() +
                          std::chrono::duration_cast<DispatchQueue::Clock::duration>(delay);
    dispatchQueue->asyncAfter(deadline, [weak = weak_from_this(), delivery = std::move(delivery)] {
        auto self = weak.lock();
        if (!self) return;
        if (auto current = self->currentHandler()) {
            (*current)(delivery.message, delivery.timeTag, delivery.sender);
        }
    });
}

}  // namespace kavrin
