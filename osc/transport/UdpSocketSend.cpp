#include "osc/transport/UdpSocket.hpp"

#include <sys/socket.h>

#include <cerrno>
#include <chrono>

#include "osc/dispatch/SerialQueue.hpp"
#include "osc/dispatch/TimerSource.hpp"
#include "osc/transport/detail/DestinationChoice.hpp"
#include "support/FatalError.hpp"
#include "osc/transport/detail/SockaddrView.hpp"
#include "osc/transport/detail/UdpSendPacket.hpp"
#include "osc/transport/detail/UdpSocketInternals.hpp"

// The send queue: datagrams (and connect requests, see UdpSocketBinding.cpp) one at a time, in
// the order given. Each datagram waits for its name lookup, gets its destination and the send
// filter's verdict, then is written when the descriptor accepts it, within its timeout.

namespace kavrin {

using namespace udpSocket;

void UdpSocket::sendData(std::vector<std::uint8_t> data, const std::string& host,
                         std::uint16_t port, double timeout, std::int64_t tag) {
    if (data.empty()) {
        return;
    }
    auto packet = std::make_shared<UdpSendPacket>(std::move(data), timeout, tag);
    packet->resolveInProgress = true;
    kResolver.resolve(host, port, d_->socketQueue_,
                      [self = shared_from_this(), packet](std::vector<SocketAddress> addresses,
                                                          std::optional<SocketError> error) {
                          packet->resolveInProgress = false;
                          packet->resolvedAddresses = std::move(addresses);
                          if (error) packet->resolveError = UdpSocketError(std::move(*error));
                          if (packet == self->d_->currentSend_) {
                              self->doPreSend();
                          }
                      });
    enqueue(std::move(packet));
}

void UdpSocket::sendData(std::vector<std::uint8_t> data, const SocketAddress& address,
                         double timeout, std::int64_t tag) {
    if (data.empty()) {
        return;
    }
    auto packet = std::make_shared<UdpSendPacket>(std::move(data), timeout, tag);
    if (address.isIPv4() || address.isIPv6()) {
        packet->address = address;
        packet->addressFamily = address.family();
    } else {
        packet->resolveError = UdpSocketError::badParamError(kInvalidAddress);
    }
    enqueue(std::move(packet));
}

void UdpSocket::sendData(std::vector<std::uint8_t> data, double timeout, std::int64_t tag) {
    if (data.empty()) {
        return;
    }
    enqueue(std::make_shared<UdpSendPacket>(std::move(data), timeout, tag));
}

void UdpSocket::sendData(std::vector<std::uint8_t> data, std::int64_t tag) {
    sendData(std::move(data), -1.0, tag);
}

void UdpSocket::enqueue(std::shared_ptr<UdpSendPacket> packet) {
    // Always through the queue, even from the socket queue, so that sends keep their order
    // behind work already posted.
    d_->socketQueue_->async([self = shared_from_this(), packet = std::move(packet)]() mutable {
        self->d_->sendQueue_.push_back(std::move(packet));
        self->maybeDequeueSend();
    });
}

void UdpSocket::maybeDequeueSend() {
    if (d_->currentSend_ || d_->currentSpecial_) {
        return;
    }
    if (!(d_->flags_ & kSocketsCreated)) {
        UdpSocketError error;
        if (!ensureSockets(&error)) {
            closeWithError(error);
            return;
        }
    }
    while (!d_->sendQueue_.empty()) {
        State::Packet next = std::move(d_->sendQueue_.front());
        d_->sendQueue_.pop_front();
        if (auto* special = std::get_if<std::shared_ptr<UdpSpecialPacket>>(&next)) {
            d_->currentSpecial_ = std::move(*special);
            maybeConnect();
            return;
        }
        auto packet = std::get<std::shared_ptr<UdpSendPacket>>(std::move(next));
        if (packet->resolveError) {
            notifyDidNotSend(packet->tag, *packet->resolveError);
            continue;
        }
        d_->currentSend_ = std::move(packet);
        doPreSend();
        return;
    }
    if (d_->flags_ & kCloseAfterSends) {
        closeWithError(std::nullopt);
    }
}

bool UdpSocket::getAddress(SocketAddress* address, int* family, UdpSocketError* error,
                           const std::vector<SocketAddress>& addresses) const {
    const FamilyAllowance ipv4{(d_->config_ & kIPv4Disabled) != 0, (d_->flags_ & kIPv4Deactivated) != 0,
                               (d_->config_ & kPreferIPv4) != 0};
    const FamilyAllowance ipv6{(d_->config_ & kIPv6Disabled) != 0, (d_->flags_ & kIPv6Deactivated) != 0,
                               (d_->config_ & kPreferIPv6) != 0};
    if (!chooseDestination(addresses, ipv4, ipv6, address, error)) {
        return false;
    }
    *family = address->family();
    return true;
}

void UdpSocket::doPreSend() {
    UdpSendPacket& packet = *d_->currentSend_;
    std::optional<UdpSocketError> failure;
    if (d_->flags_ & kConnected) {
        const bool namesDestination = packet.resolveInProgress || packet.resolveError ||
                                      !packet.resolvedAddresses.empty() || !packet.address.empty();
        if (namesDestination) {
            failure = UdpSocketError::badConfigError(
                "Cannot specify destination of packet for connected socket");
        } else {
            packet.address = d_->cachedConnectedAddress_;
            packet.addressFamily = d_->cachedConnectedFamily_;
        }
    } else if (packet.resolveInProgress) {
        // Nothing to write until the resolver answers; its completion comes back here.
        if (d_->flags_ & kSocket4Writable) {
            d_->socket4_.sendSource.suspend();
        }
        if (d_->flags_ & kSocket6Writable) {
            d_->socket6_.sendSource.suspend();
        }
        return;
    } else if (packet.resolveError) {
        failure = packet.resolveError;
    } else if (!packet.address.empty()) {
        UdpSocketError error;
        if (!getAddress(&packet.address, &packet.addressFamily, &error, {packet.address})) {
            failure = error;
        }
    } else if (!packet.resolvedAddresses.empty()) {
        UdpSocketError error;
        if (!getAddress(&packet.address, &packet.addressFamily, &error, packet.resolvedAddresses)) {
            failure = error;
        }
    } else {
        failure = UdpSocketError::badConfigError(
            "You must specify destination of packet for a non-connected socket");
    }
    if (failure) {
        notifyDidNotSend(packet.tag, *failure);
        endCurrentSend();
        maybeDequeueSend();
        return;
    }
    if (!d_->sendFilter_) {
        doSend();
        return;
    }
    if (!d_->sendFilterAsync_) {
        const bool allowed = runFilterAndWait(*d_->sendFilterQueue_, [&] {
            return d_->sendFilter_(packet.buffer, packet.address, packet.tag);
        });
        finishSendFilter(allowed);
        return;
    }
    packet.filterInProgress = true;
    d_->sendFilterQueue_->async(
        [self = shared_from_this(), filter = d_->sendFilter_, packet = d_->currentSend_] {
            const bool allowed = filter(packet->buffer, packet->address, packet->tag);
            self->d_->socketQueue_->async([self, packet, allowed] {
                packet->filterInProgress = false;
                if (packet == self->d_->currentSend_) {  // else closed meanwhile
                    self->finishSendFilter(allowed);
                }
            });
        });
}

void UdpSocket::finishSendFilter(bool allowed) {
    if (allowed) {
        doSend();
        return;
    }
    // Deliberately reported as sent: a filtered packet looks delivered to the sender.
    notifyDidSend(d_->currentSend_->tag);
    endCurrentSend();
    maybeDequeueSend();
}

void UdpSocket::onWritable(bool isIPv4) {
    d_->flags_ |= writableBit(isIPv4);
    if (d_->currentSend_ && !d_->currentSend_->resolveInProgress && !d_->currentSend_->filterInProgress) {
        doSend();
    } else {
        (isIPv4 ? d_->socket4_ : d_->socket6_).sendSource.suspend();
    }
}

void UdpSocket::doSend() {
    if (!d_->currentSend_) {
        fatalError("Invalid logic: send step without a current send");
    }
    const UdpSendPacket& packet = *d_->currentSend_;
    const bool isIPv4 = packet.addressFamily == AF_INET;
    const int fd = isIPv4 ? d_->socket4_.fd : d_->socket6_.fd;
    ssize_t result;
    if (d_->flags_ & kConnected) {
        result = ::send(fd, packet.buffer.data(), packet.buffer.size(), MSG_NOSIGNAL);
    } else {
        result = ::sendto(fd, packet.buffer.data(), packet.buffer.size(), MSG_NOSIGNAL,
                          sockaddrOf(packet.address), lengthOf(packet.address));
    }
    const int sendErrno = errno;
    // The kernel binds an unbound socket on its first datagram.
    d_->flags_ |= kBound;
    if (result > 0) {
        notifyDidSend(packet.tag);
        endCurrentSend();
        maybeDequeueSend();
        return;
    }
    if (result == 0 || sendErrno == EAGAIN || sendErrno == EWOULDBLOCK) {
        // Full: wait for the socket to accept bytes again.
        d_->flags_ &= ~writableBit(isIPv4);
        if (!(d_->flags_ & kSocket4Writable)) {
            d_->socket4_.sendSource.resume();
        }
        if (!(d_->flags_ & kSocket6Writable)) {
            d_->socket6_.sendSource.resume();
        }
        if (!d_->sendTimer_ && packet.timeout >= 0.0) {
            setupSendTimer(packet.timeout);
        }
        return;
    }
    errno = sendErrno;
    closeWithError(UdpSocketError::errnoError("Error in send() function."));
}

void UdpSocket::setupSendTimer(double timeout) {
    d_->sendTimer_ = TimerSource::create(d_->socketQueue_);
    d_->sendTimer_->setEventHandler([weak = weak_from_this(), timer = d_->sendTimer_.get()] {
        auto self = weak.lock();
        if (!self || self->d_->sendTimer_.get() != timer || !self->d_->currentSend_) {
            return;  // the send ended before the timer fired
        }
        const std::int64_t tag = self->d_->currentSend_->tag;
        self->notifyDidNotSend(tag, UdpSocketError::sendTimeoutError());
        self->endCurrentSend();
        self->maybeDequeueSend();
    });
    d_->sendTimer_->schedule(std::chrono::duration_cast<DispatchQueue::Clock::duration>(
        std::chrono::duration<double>(timeout)));
    d_->sendTimer_->resume();
}

void UdpSocket::endCurrentSend() {
    if (d_->sendTimer_) {
        d_->sendTimer_->cancel();
        d_->sendTimer_.reset();
    }
    d_->currentSend_.reset();
    d_->currentSpecial_.reset();
}

void UdpSocket::notifyDidSend(std::int64_t tag) {
    notifyDelegate(
        [tag](UdpSocketDelegate& d, UdpSocket& s) { d.udpSocketDidSendDataWithTag(s, tag); });
}

void UdpSocket::notifyDidNotSend(std::int64_t tag, const UdpSocketError& error) {
    notifyDelegate([tag, error](UdpSocketDelegate& d, UdpSocket& s) {
        d.udpSocketDidNotSendDataWithTag(s, tag, error);
    });
}

void UdpSocket::setSendFilter(SendFilter filter, std::shared_ptr<DispatchQueue> queue) {
    setSendFilter(std::move(filter), std::move(queue), true);
}

void UdpSocket::setSendFilter(SendFilter filter, std::shared_ptr<DispatchQueue> queue,
                              bool isAsynchronous) {
    if (filter && !queue) {
        fatalError(kNoFilterQueue);
    }
    d_->runSoon([this, filter = std::move(filter), queue = std::move(queue), isAsynchronous] {
        d_->sendFilter_ = filter;
        d_->sendFilterQueue_ = filter ? queue : nullptr;
        d_->sendFilterAsync_ = isAsynchronous;
    });
}

}  // namespace kavrin
