#include "osc/transport/OSCServer.hpp"

#include <chrono>
#include <variant>

#include "osc/transport/UdpSocket.hpp"
#include "osc/transport/UdpSocketError.hpp"
#include "osc/transport/detail/OSCServerDelegate.hpp"

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
      port_(port),
      // The socket hands datagrams over one at a time and never says where its block ends: a
      // flush posted behind the block marks the end.
      deliveries(
          [this](std::vector<Delivery> block) { deliverNow(std::move(block)); },
          [this] {
              this->receiveQueue->async([self = shared_from_this()] { self->deliveries.flush(); });
          }) {}

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

void OSCServer::setScheduledLimit(ScheduledLimit limit) {
    limitMessages.store(limit.messages);
    limitBytes.store(limit.bytes);
}

OSCServer::ScheduledLimit OSCServer::scheduledLimit() const {
    return {limitMessages.load(), limitBytes.load()};
}

void OSCServer::receive(OSCPacket&& packet, const SocketAddress& sender) {
    Plan steps;
    plan(std::move(packet), OSCTimeTag::immediate(), false, {}, sender, steps);
    if (steps.scheduledMessages > 0 && !admit(steps)) return;  // the whole datagram
    for (auto& step : steps.steps) {
        if (auto* now = std::get_if<Delivery>(&step)) {
            deliveries.add(std::move(*now));
        } else {
            deliverLater(std::move(std::get<ScheduledRun>(step)));
        }
    }
}

// A bundle's own tag governs its elements, whatever tag it was reached with. Whether it waits,
// and until when, is decided once for the whole bundle: its messages then share one deadline
// and keep their order.
void OSCServer::plan(OSCPacket&& packet, const OSCTimeTag& timeTag, bool scheduled,
                     DispatchQueue::Clock::time_point deadline, const SocketAddress& sender,
                     Plan& steps) {
    if (auto* bundle = std::get_if<OSCBundle>(&packet)) {
        const OSCTimeTag& tag = bundle->timeTag;
        const bool waits =
            mode.load() == TimeTagMode::osc1_0 && !tag.isImmediate() && tag.isFuture();
        const auto due = waits ? deadlineOf(tag) : DispatchQueue::Clock::time_point{};
        for (auto& element : bundle->elements) {
            plan(std::move(element), tag, waits, due, sender, steps);
        }
        return;
    }
    auto& message = std::get<OSCMessage>(packet);
    if (!scheduled) {
        steps.steps.emplace_back(Delivery{std::move(message), timeTag, sender});
        return;
    }
    const std::size_t bytes = message.decodedFrom() ? message.decodedFrom()->size() : 0;
    auto* last = steps.steps.empty() ? nullptr : std::get_if<ScheduledRun>(&steps.steps.back());
    if (last == nullptr || last->deadline != deadline || last->timeTag != timeTag) {
        steps.steps.emplace_back(ScheduledRun{deadline, timeTag, sender, {}, 0});
        last = &std::get<ScheduledRun>(steps.steps.back());
    }
    last->messages.push_back(std::move(message));
    last->bytes += bytes;
    ++steps.scheduledMessages;
    steps.scheduledBytes += bytes;
}

// Equal tags must give equal deadlines, so that their deliveries keep the order they came in.
// Reading the two clocks afresh for each bundle gives an offset that jitters by a few
// microseconds, so the offset is kept and renewed only when the wall clock has really moved
// against the steady one (a time step).
DispatchQueue::Clock::time_point OSCServer::deadlineOf(const OSCTimeTag& tag) {
    using namespace std::chrono;
    const auto offset = duration_cast<system_clock::duration>(
        system_clock::now().time_since_epoch() -
        duration_cast<system_clock::duration>(DispatchQueue::Clock::now().time_since_epoch()));
    if (auto drift = offset - clockOffset; drift > 1ms || drift < -1ms) clockOffset = offset;
    const auto due = duration_cast<DispatchQueue::Clock::duration>(
        duration<double>(tag.date().time_since_epoch() - clockOffset));
    return DispatchQueue::Clock::time_point(due);
}

bool OSCServer::admit(const Plan& steps) {
    const std::size_t messages = scheduledMessages.load();
    const std::size_t bytes = scheduledBytes.load();
    if (messages + steps.scheduledMessages > limitMessages.load() ||
        bytes + steps.scheduledBytes > limitBytes.load()) {
        return false;
    }
    // Only the receive queue adds, so what was read cannot have grown meanwhile.
    scheduledMessages += steps.scheduledMessages;
    scheduledBytes += steps.scheduledBytes;
    return true;
}

// Holds the server strongly: a delivery already decided runs even if the owner lets go.
void OSCServer::deliverNow(std::vector<Delivery> batch) {
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
void OSCServer::deliverLater(ScheduledRun&& run) {
    const auto deadline = run.deadline;
    dispatchQueue->asyncAfter(deadline, [weak = weak_from_this(), run = std::move(run)] {
        auto self = weak.lock();
        if (!self) return;
        self->scheduledMessages -= run.messages.size();
        self->scheduledBytes -= run.bytes;
        for (const auto& message : run.messages) {
            if (auto current = self->currentHandler()) (*current)(message, run.timeTag, run.sender);
        }
    });
}

}  // namespace kavrin
