#include "osc/transport/OSCServer.hpp"

#include <chrono>
#include <variant>

#include "osc/transport/OSCServerDelegate.hpp"
#include "osc/transport/UdpSocket.hpp"
#include "osc/transport/UdpSocketError.hpp"

namespace kavrin {

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
      handler(handler ? std::make_shared<const Handler>(std::move(handler)) : nullptr),
      mode(mode),
      port_(port) {}

OSCServer::~OSCServer() {
    udpServer->close();
}

void OSCServer::setHandler(Handler newHandler) {
    auto stored = newHandler ? std::make_shared<const Handler>(std::move(newHandler)) : nullptr;
    std::lock_guard lock(handlerMutex);
    handler = std::move(stored);
}

std::shared_ptr<const OSCServer::Handler> OSCServer::currentHandler() const {
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
void OSCServer::handle(OSCPacket&& packet, const OSCTimeTag& timeTag) {
    if (auto* bundle = std::get_if<OSCBundle>(&packet)) {
        for (auto& element : bundle->elements) handle(std::move(element), bundle->timeTag);
        return;
    }
    auto& message = std::get<OSCMessage>(packet);
    if (mode.load() == TimeTagMode::osc1_0 && !timeTag.isImmediate() && timeTag.isFuture()) {
        deliverLater(std::move(message), timeTag);
    } else {
        deliverNow(std::move(message), timeTag);
    }
}

// Deliveries are gathered while the receive queue works through the datagrams the socket read
// in one go, and handed to the dispatch queue as one block after them: a hop per message would
// cost more than decoding it. The order of deliveries is unchanged.
void OSCServer::deliverNow(OSCMessage&& message, const OSCTimeTag& timeTag) {
    if (undelivered.empty()) {
        receiveQueue->async([self = shared_from_this()] { self->flushDeliveries(); });
    }
    undelivered.push_back({std::move(message), timeTag});
}

// Holds the server strongly: a delivery already decided runs even if the owner lets go.
void OSCServer::flushDeliveries() {
    if (undelivered.empty()) return;
    dispatchQueue->async([self = shared_from_this(), batch = std::move(undelivered)] {
        for (const auto& delivery : batch) {
            if (auto current = self->currentHandler())
                (*current)(delivery.message, delivery.timeTag);
        }
    });
    undelivered.clear();
}

// Holds the server weakly, deliberately unlike deliverNow: a scheduled delivery must not keep a
// released server alive until its time comes.
void OSCServer::deliverLater(OSCMessage&& message, const OSCTimeTag& timeTag) {
    const std::chrono::duration<double> delay = timeTag.date() - std::chrono::system_clock::now();
    const auto deadline = DispatchQueue::Clock::now() +
                          std::chrono::duration_cast<DispatchQueue::Clock::duration>(delay);
    dispatchQueue->asyncAfter(deadline,
                              [weak = weak_from_this(), message = std::move(message), timeTag] {
                                  auto self = weak.lock();
                                  if (!self) return;
                                  if (auto current = self->currentHandler())
                                      (*current)(message, timeTag);
                              });
}

}  // namespace kavrin
