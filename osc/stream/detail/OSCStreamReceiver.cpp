#include "osc/stream/detail/OSCStreamReceiver.hpp"

#include "osc/codec/OSCPacketView.hpp"
#include "osc/codec/OSCMessageViews.hpp"

namespace kavrin {

namespace {
constexpr std::size_t turnLimit = 64;
}  // namespace

OSCStreamReceiver::OSCStreamReceiver(std::shared_ptr<SerialQueue> receiveQueue,
                                     std::shared_ptr<DispatchQueue> dispatchQueue, TimeTagMode mode,
                                     OSCTextPolicy textPolicy, OSCStreamHandler handler)
    : receiveQueue_(std::move(receiveQueue)),
      dispatchQueue_(std::move(dispatchQueue)),
      handler_(handler ? std::make_shared<const OSCStreamHandler>(std::move(handler)) : nullptr),
      hasHandler_(handler_ != nullptr),
      mode_(mode),
      textPolicy_(textPolicy) {}

void OSCStreamReceiver::setHooks(Opened opened, Closed closed) {
    opened_ = std::move(opened);
    closed_ = std::move(closed);
}

void OSCStreamReceiver::setHandler(OSCStreamHandler handler) {
    auto stored = handler ? std::make_shared<const OSCStreamHandler>(std::move(handler)) : nullptr;
    std::lock_guard lock(handlerMutex_);
    hasHandler_ = stored != nullptr;
    handler_ = std::move(stored);
}

void OSCStreamReceiver::setViewHandler(OSCStreamViewHandler handler) {
    auto stored =
        handler ? std::make_shared<const OSCStreamViewHandler>(std::move(handler)) : nullptr;
    std::lock_guard lock(handlerMutex_);
    hasViewHandler_ = stored != nullptr;
    viewHandler_ = std::move(stored);
}

void OSCStreamReceiver::setPacketHandler(PacketHandler handler) {
    auto stored = handler ? std::make_shared<const PacketHandler>(std::move(handler)) : nullptr;
    std::lock_guard lock(handlerMutex_);
    hasPacketHandler_ = stored != nullptr;
    packetHandler_ = std::move(stored);
}

std::shared_ptr<const OSCStreamHandler> OSCStreamReceiver::handler() const {
    std::lock_guard lock(handlerMutex_);
    return handler_;
}

void OSCStreamReceiver::setTimeTagMode(TimeTagMode mode) {
    mode_.store(mode == TimeTagMode::ignore ? TimeTagMode::ignore : TimeTagMode::osc1_0);
}

OSCStreamCounters OSCStreamReceiver::counters() const {
    return {counted_.connectionsOpened.load(),
            counted_.connectionsFailed.load(),
            counted_.packetsReceived.load(),
            counted_.messagesDelivered.load(),
            counted_.messagesViewed.load(),
            dropped_[OSCDropReason::notOSC],
            dropped_[OSCDropReason::malformed],
            dropped_[OSCDropReason::unexpectedType],
            dropped_[OSCDropReason::internalInconsistency],
            dropped_[OSCDropReason::overScheduledLimit]};
}

void OSCStreamReceiver::opened(const Connection& connection) {
    ++counted_.connectionsOpened;
    if (opened_) opened_(connection);
}

void OSCStreamReceiver::closed(const Connection& connection,
                               const std::optional<TcpSocketError>& error, bool wasOpen) {
    if (error || !wasOpen) ++counted_.connectionsFailed;
    if (closed_) closed_(connection, error);
}

// A packet that fails to decode costs only itself: the framing still holds, so the connection
// reads on, as a UDP server reads the next datagram.
void OSCStreamReceiver::receive(std::span<const std::uint8_t> packet, const Connection& from) {
    ++counted_.packetsReceived;
    if (hasPacketHandler_.load()) {
        flush();  // the packet is shown after the messages of those before it
        std::lock_guard lock(handlerMutex_);
        if (packetHandler_) {
            dispatchQueue_->async([handler = packetHandler_,
                                   copy = std::vector<std::uint8_t>(packet.begin(), packet.end()),
                                   from, hold = readHold_] { (*handler)(copy, from); });
        }
    }
    // Read once per packet: a view handler alone spares the owned decode.
    std::shared_ptr<const OSCStreamViewHandler> view;
    if (hasViewHandler_.load()) {
        std::lock_guard lock(handlerMutex_);
        view = viewHandler_;
    }
    std::optional<OSCPacket> decoded;
    try {
        if (view) {
            const auto read = OSCPacketView::decode(packet, textPolicy_);
            if (!read) {
                dropped_.add(OSCDropReason::notOSC);
                return;
            }
            counted_.messagesViewed += forEachMessageView(
                *read, [&](const OSCMessageView& message, const OSCTimeTag& timeTag) {
                    (*view)(message, timeTag, from);
                });
            if (!hasHandler_.load()) return;
        }
        decoded = OSCPacket::decode(packet, textPolicy_);
    } catch (const OSCDecodeError& error) {
        dropped_.add(dropReasonOf(error));
        return;
    }
    if (!decoded) {
        dropped_.add(OSCDropReason::notOSC);
        return;
    }
    const bool admitted = planner_.admitAll(
        std::move(*decoded), mode_.load() == TimeTagMode::osc1_0, from, noRoutes_,
        [this](Planner::Delivery&& now) {
            turn_.push_back(std::move(now));
            // A read of thousands of small packets goes in parts, so that the first of them do
            // not wait for the last.
            if (turn_.size() == turnLimit) flush();
        },
        [this](Planner::ScheduledRun&& later) { deliverLater(std::move(later)); });
    // The whole packet goes, never half a bundle.
    if (!admitted) dropped_.add(OSCDropReason::overScheduledLimit);
}

void OSCStreamReceiver::deliver(const OSCMessage& message, const OSCTimeTag& timeTag,
                                const Connection& from, const OSCStreamHandler* handler) {
    if (!handler) return;
    (*handler)(message, timeTag, from);
    ++counted_.messagesDelivered;
}

void OSCStreamReceiver::flush() {
    if (!turn_.empty()) deliverNow(std::exchange(turn_, {}));
}

// Holds the receiver strongly: a delivery already decided runs even if the owner lets go. Holds
// the read's share of its connection's backlog, so that a busy dispatch queue slows the reading.
void OSCStreamReceiver::deliverNow(std::vector<Planner::Delivery> block) {
    dispatchQueue_->async([self = shared_from_this(), block = std::move(block),
                           hold = readHold_] {
        const auto handler = self->handler();  // the one in force as the block runs
        for (const auto& delivery : block) {
            self->deliver(delivery.message, delivery.timeTag, delivery.origin, handler.get());
        }
    });
}

// Holds the receiver weakly: a scheduled delivery must not keep a released owner's receiver
// alive until its time comes.
void OSCStreamReceiver::deliverLater(Planner::ScheduledRun&& run) {
    const auto deadline = run.deadline;
    dispatchQueue_->asyncAfter(deadline, [weak = weak_from_this(), run = std::move(run)] {
        auto self = weak.lock();
        if (!self) return;
        self->planner_.release(run);
        const auto handler = self->handler();
        for (const auto& entry : run.messages) {
            self->deliver(entry.first, run.timeTag, run.origin, handler.get());
        }
    });
}

}  // namespace kavrin
