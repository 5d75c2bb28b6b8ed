#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <optional>
#include <utility>

#include "osc/dispatch/DispatchQueue.hpp"
#include "osc/transport/UdpSocket.hpp"
#include "osc/transport/detail/HostResolver.hpp"

// What UdpSocket's source files share and nothing else uses: the bits of its state and
// configuration words, its name resolver, texts reported from more than one file, the filter
// call, and the definitions of its member templates. Internal to the socket.
namespace kavrin::udpSocket {

// State (flags_).
constexpr std::uint32_t kSocketsCreated = 0x1;
constexpr std::uint32_t kBound = 0x2;
constexpr std::uint32_t kConnecting = 0x4;
constexpr std::uint32_t kConnected = 0x8;
constexpr std::uint32_t kReceiveOnce = 0x10;
constexpr std::uint32_t kReceiveContinuous = 0x20;
constexpr std::uint32_t kIPv4Deactivated = 0x40;
constexpr std::uint32_t kIPv6Deactivated = 0x80;
constexpr std::uint32_t kSocket4Writable = 0x1000;
constexpr std::uint32_t kSocket6Writable = 0x2000;
constexpr std::uint32_t kCloseAfterSends = 0x8000;
constexpr std::uint32_t kFlipFlop = 0x10000;

// Configuration (config_).
constexpr std::uint16_t kIPv4Disabled = 0x1;
constexpr std::uint16_t kIPv6Disabled = 0x2;
constexpr std::uint16_t kPreferIPv4 = 0x4;
constexpr std::uint16_t kPreferIPv6 = 0x8;

constexpr std::uint32_t writableBit(bool isIPv4) {
    return isIPv4 ? kSocket4Writable : kSocket6Writable;
}

inline constexpr HostResolver kResolver(SOCK_DGRAM, IPPROTO_UDP);

inline constexpr const char* kInvalidAddress =
    "The address param is not a valid IPv4 or IPv6 socket address.";
inline constexpr const char* kNoFilterQueue =
    "Must provide a dispatch_queue in which to run the filter block.";

// Runs a filter on its queue and waits for the verdict. A serial filter queue that is free runs
// it right here; a busy one is waited for without starving the queues it waits on.
template <class F>
bool runFilterAndWait(DispatchQueue& queue, F&& filter) {
    bool verdict = false;
    queue.sync([&] { verdict = filter(); });
    return verdict;
}

}  // namespace kavrin::udpSocket

namespace kavrin {

template <class F>
auto UdpSocket::query(F&& read) const {
    std::optional<decltype(read())> result;
    runSync([&] { result = read(); });
    return *result;
}

template <class F>
void UdpSocket::notifyDelegate(F&& call) {
    reportReceived();  // datagrams read before this event are reported before it
    auto delegate = delegate_.lock();
    auto self = weak_from_this().lock();  // none while being destroyed: nothing to report to
    if (!delegate || !delegateQueue_ || !self) {
        return;
    }
    delegateQueue_->async([self = std::move(self), delegate = std::move(delegate),
                           call = std::forward<F>(call)]() mutable { call(*delegate, *self); });
}

}  // namespace kavrin
