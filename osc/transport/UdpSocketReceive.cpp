#include "osc/transport/UdpSocket.hpp"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "osc/dispatch/ReadinessSource.hpp"
#include "osc/dispatch/SerialQueue.hpp"
#include "osc/transport/detail/Fail.hpp"
#include "support/FatalError.hpp"
#include "osc/transport/detail/UdpSocketInternals.hpp"

// Receiving: once or continuously, through the receive filter or, without one, several
// datagrams per system call. What is read reaches the delegate in blocks, in order.

namespace kavrin {

using namespace udpSocket;

namespace {

// Datagrams one recvmmsg call may take.
constexpr unsigned kSlots = 16;

}  // namespace

bool UdpSocket::receiveOnce(UdpSocketError* error) {
    return startReceiving(false, error);
}

bool UdpSocket::beginReceiving(UdpSocketError* error) {
    return startReceiving(true, error);
}

bool UdpSocket::startReceiving(bool continuous, UdpSocketError* error) {
    const std::uint32_t mode = continuous ? kReceiveContinuous : kReceiveOnce;
    const std::uint32_t other = continuous ? kReceiveOnce : kReceiveContinuous;
    return d_->query([&] {
        if (d_->flags_ & mode) {
            return true;
        }
        // Deliberately tested on the descriptors, not on Bound: after port reuse they exist.
        if (!(d_->flags_ & kSocketsCreated)) {
            return fail(error,
                        UdpSocketError::badConfigError(
                            "Must bind socket before you can receive data. You can do this "
                            "explicitly via bind, or implicitly via connect or by sending data."));
        }
        d_->flags_ = (d_->flags_ | mode) & ~other;
        d_->socketQueue_->async([self = shared_from_this()] { self->doReceive(); });
        return true;
    });
}

void UdpSocket::pauseReceiving() {
    d_->runSync([&] {
        d_->flags_ &= ~(kReceiveOnce | kReceiveContinuous);
        suspendReceiveSourcesWithData();
    });
}

void UdpSocket::setReceiveFilter(ReceiveFilter filter, std::shared_ptr<DispatchQueue> queue) {
    setReceiveFilter(std::move(filter), std::move(queue), true);
}

void UdpSocket::setReceiveFilter(ReceiveFilter filter, std::shared_ptr<DispatchQueue> queue,
                                 bool isAsynchronous) {
    if (filter && !queue) {
        fatalError(kNoFilterQueue);
    }
    d_->runSoon([this, filter = std::move(filter), queue = std::move(queue), isAsynchronous] {
        d_->receiveFilter_ = filter;
        d_->receiveFilterQueue_ = filter ? queue : nullptr;
        d_->receiveFilterAsync_ = isAsynchronous;
    });
}

void UdpSocket::onReadable(bool isIPv4) {
    Family& f = isIPv4 ? d_->socket4_ : d_->socket6_;
    // Readable is all the receive step needs to know: it reads until the call would block. A
    // datagram socket has no end of stream, so an empty datagram waiting cannot close it.
    f.readable = true;
    doReceive();
}

void UdpSocket::resumeDrainedReceiveSources() {
    for (Family* f : {&d_->socket4_, &d_->socket6_}) {
        if (!f->readable) {
            f->receiveSource.resume();
        }
    }
}

void UdpSocket::suspendReceiveSourcesWithData() {
    for (Family* f : {&d_->socket4_, &d_->socket6_}) {
        if (f->readable) {
            f->receiveSource.suspend();
        }
    }
}

// Reads until the descriptors are drained or the turn has read its share. The datagrams read go
// to the delegate queue as one block at the end of the turn. A full turn yields the socket queue
// to other work; the read sources, resumed, bring us back.
void UdpSocket::doReceive() {
    // One block a turn. A turn that reads more hands over blocks that wait, cold in the cache,
    // while it goes on reading: draining a full buffer 1,024 datagrams a turn was 15 % slower
    // than 64. Each turn's hand-over wakes the delegate queue, so 256 drains faster than 64.
    constexpr std::size_t kTurnDatagrams = UdpDatagramBlock::expected;
    for (std::size_t read = 0;;) {
        if (!(d_->flags_ & (kReceiveOnce | kReceiveContinuous))) {
            suspendReceiveSourcesWithData();
            break;
        }
        if ((d_->flags_ & kReceiveOnce) && d_->pendingFilterOperations_ > 0) {
            suspendReceiveSourcesWithData();
            break;
        }
        if (d_->backlog_->full()) {
            suspendReceiveSourcesWithData();  // its room, once made, brings us back
            break;
        }
        const bool has4 = d_->socket4_.readable;
        const bool has6 = d_->socket6_.readable;
        if ((!has4 && !has6) || read >= kTurnDatagrams) {
            d_->socket4_.receiveSource.resume();
            d_->socket6_.receiveSource.resume();
            break;
        }
        bool useIPv4 = has4;
        if (has4 && has6) {
            if (d_->flags_ & kConnected) {
                useIPv4 = d_->cachedConnectedFamily_ == AF_INET;
            } else {
                const bool wasClear = !(d_->flags_ & kFlipFlop);
                d_->flags_ ^= kFlipFlop;
                useIPv4 = !wasClear;
            }
        }
        const bool batched = (d_->flags_ & kReceiveContinuous) && !d_->receiveFilter_;
        if (!(batched ? receiveMany(useIPv4) : receiveOne(useIPv4))) {
            break;
        }
        read += batched ? kSlots : 1;
    }
    reportReceived();
}

bool UdpSocket::receiveOne(bool isIPv4) {
    Family& f = isIPv4 ? d_->socket4_ : d_->socket6_;
    const std::size_t limit = isIPv4 ? d_->max4ReceiveSize_ : d_->max6ReceiveSize_.value();
    // One scratch buffer per descriptor, reused: each datagram costs one allocation of its
    // own size instead of one of the largest possible size.
    if (f.scratch.size() < limit) {
        f.scratch.resize(limit);
    }
    sockaddr_in6 source{};
    socklen_t sourceLength = isIPv4 ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
    const ssize_t result = ::recvfrom(f.fd, f.scratch.data(), limit, 0,
                                      reinterpret_cast<sockaddr*>(&source), &sourceLength);
    const int receiveErrno = errno;
    if (result < 1) {
        f.readable = false;
    }
    if (result == 0 || (result < 0 && (receiveErrno == EAGAIN || receiveErrno == EWOULDBLOCK))) {
        resumeDrainedReceiveSources();
        return false;
    }
    if (result < 0) {
        errno = receiveErrno;
        closeWithError(UdpSocketError::errnoError("Error in recvfrom() function"));
        return false;
    }
    const SocketAddress address(&source, std::min<std::size_t>(sourceLength, sizeof source));
    if ((d_->flags_ & kConnected) && !address.sameEndpoint(d_->cachedConnectedAddress_)) {
        return true;  // not from the peer: dropped
    }
    if (!d_->receiveFilter_) {
        deliver({f.scratch.data(), static_cast<std::size_t>(result)}, address, {});
        return true;
    }
    // The filter's signature takes a vector of its own.
    std::vector<std::uint8_t> data(f.scratch.begin(), f.scratch.begin() + result);
    if (!d_->receiveFilterAsync_) {
        std::any context;
        const bool allowed = runFilterAndWait(
            *d_->receiveFilterQueue_, [&] { return d_->receiveFilter_(data, address, context); });
        if (allowed) {
            deliver(data, address, std::move(context));
        }
        return true;
    }
    ++d_->pendingFilterOperations_;
    d_->receiveFilterQueue_->async([self = shared_from_this(), filter = d_->receiveFilter_,
                                data = std::move(data), address]() mutable {
        std::any context;
        const bool allowed = filter(data, address, context);
        self->d_->socketQueue_->async([self, allowed, data = std::move(data), address,
                                   context = std::move(context)]() mutable {
            --self->d_->pendingFilterOperations_;
            if (allowed) {
                self->deliver(data, address, std::move(context));
                self->reportReceived();
            }
            // In once-mode the read waited for this verdict.
            if (self->d_->flags_ & kReceiveOnce) {
                self->doReceive();
            }
        });
    });
    return true;
}

// Continuous receiving without a filter takes every datagram it reads, so it may read several
// per system call: a call costs more than copying a small datagram. Each slot holds the largest
// datagram allowed, as one recvfrom buffer would; pages of a slot that no datagram reaches are
// never touched.
bool UdpSocket::receiveMany(bool isIPv4) {
    Family& f = isIPv4 ? d_->socket4_ : d_->socket6_;
    const std::size_t limit = isIPv4 ? d_->max4ReceiveSize_ : d_->max6ReceiveSize_.value();
    if (limit == 0) {
        return receiveOne(isIPv4);
    }
    // Slots 64 KiB apart would all start in the same cache set, evicting one another's first
    // lines between the kernel's copy and ours; one line more apart, each starts in a set of
    // its own.
    const std::size_t stride = (limit + 63) / 64 * 64 + 64;
    if (f.slotSize != limit) {
        f.slots.reset(new std::uint8_t[kSlots * stride]);
        f.slotSize = limit;
    }
    mmsghdr messages[kSlots];
    iovec buffers[kSlots];
    sockaddr_in6 sources[kSlots];
    for (unsigned i = 0; i < kSlots; ++i) {
        buffers[i] = {f.slots.get() + i * stride, limit};
        messages[i] = {};
        messages[i].msg_hdr.msg_name = &sources[i];
        messages[i].msg_hdr.msg_namelen = isIPv4 ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
        messages[i].msg_hdr.msg_iov = &buffers[i];
        messages[i].msg_hdr.msg_iovlen = 1;
    }
    const int count = ::recvmmsg(f.fd, messages, kSlots, 0, nullptr);
    if (count < 0) {
        const int receiveErrno = errno;
        f.readable = false;
        if (receiveErrno == EAGAIN || receiveErrno == EWOULDBLOCK) {
            resumeDrainedReceiveSources();
            return false;
        }
        errno = receiveErrno;
        closeWithError(UdpSocketError::errnoError("Error in recvfrom() function"));
        return false;
    }
    for (int i = 0; i < count; ++i) {
        const std::size_t size = messages[i].msg_len;
        if (size == 0) {
            continue;  // an empty datagram carries nothing to report
        }
        const std::uint8_t* bytes = f.slots.get() + i * stride;
        const SocketAddress address(
            &sources[i],
            std::min<std::size_t>(messages[i].msg_hdr.msg_namelen, sizeof(sockaddr_in6)));
        if ((d_->flags_ & kConnected) && !address.sameEndpoint(d_->cachedConnectedAddress_)) {
            continue;  // not from the peer: dropped
        }
        // deliver() without its filter context and once-mode, which batches never have.
        d_->received_.add({bytes, size}, address);
        if (d_->received_.size() == UdpDatagramBlock::expected) reportReceived();
    }
    // Fewer than asked for: the descriptor is drained for now.
    if (count < static_cast<int>(kSlots)) {
        f.readable = false;
        resumeDrainedReceiveSources();
        return false;
    }
    f.readable = true;
    return true;
}

void UdpSocket::deliver(std::span<const std::uint8_t> data, const SocketAddress& address,
                        std::any context) {
    d_->received_.add(data, address, std::move(context));
    if (d_->received_.size() == UdpDatagramBlock::expected) {
        reportReceived();
    }
    if (d_->flags_ & kReceiveOnce) {
        d_->flags_ &= ~(kReceiveOnce | kReceiveContinuous);
    }
}

void UdpSocket::reportReceived() {
    if (d_->received_.empty()) {
        return;
    }
    UdpDatagramBlock block = std::exchange(d_->received_, {});
    block.hold_ = d_->backlog_->admit(block.weight());
    auto delegate = d_->delegate_.lock();
    auto self = weak_from_this().lock();
    if (!delegate || !d_->delegateQueue_ || !self) {
        return;
    }
    d_->delegateQueue_->async([self = std::move(self), delegate = std::move(delegate),
                           block = std::move(block)]() mutable {
        delegate->udpSocketDidReceiveBlock(*self, std::move(block));
    });
}

void UdpSocketDelegate::udpSocketDidReceiveBlock(UdpSocket& sock, UdpDatagramBlock block) {
    for (const auto& datagram : block) {
        const auto bytes = block.bytes(datagram);
        udpSocketDidReceiveData(sock, std::vector<std::uint8_t>(bytes.begin(), bytes.end()),
                                datagram.address, datagram.filterContext);
    }
}

}  // namespace kavrin
