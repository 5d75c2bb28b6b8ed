#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <climits>
#include <cstdint>
#include <deque>
#include <optional>
#include <utility>
#include <variant>

#include "osc/dispatch/DispatchQueue.hpp"
#include "osc/transport/UdpSocket.hpp"
#include "osc/transport/detail/HostResolver.hpp"
#include "osc/transport/detail/SocketCore.hpp"
#include "osc/transport/detail/SuspendableSource.hpp"
#include "support/Clamped.hpp"
#include "support/ReceiveBacklog.hpp"

// What UdpSocket's source files share and nothing else uses: its state, the bits of its state
// and configuration words, its name resolver, texts reported from more than one file, the
// filter call, and the definition of its member template. Internal to the socket.
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

class TimerSource;
class UdpSpecialPacket;

struct UdpSocket::Family {
    int fd = -1;
    SuspendableSource sendSource;
    SuspendableSource receiveSource;
    bool readable = false;                  // from the read event until a read would block
    std::vector<std::uint8_t> scratch;      // reused receive buffer
    std::unique_ptr<std::uint8_t[]> slots;  // reused buffers of receiveMany, slotSize each
    std::size_t slotSize = 0;
    SocketAddress cachedLocalAddress;  // filled once bound
};

struct UdpSocket::State : SocketCore<UdpSocket, UdpSocketDelegate, UdpSocketError> {
    using SocketCore::SocketCore;
    using Packet = std::variant<std::shared_ptr<UdpSendPacket>, std::shared_ptr<UdpSpecialPacket>>;

    ReceiveFilter receiveFilter_;
    std::shared_ptr<DispatchQueue> receiveFilterQueue_;
    bool receiveFilterAsync_ = false;
    SendFilter sendFilter_;
    std::shared_ptr<DispatchQueue> sendFilterQueue_;
    bool sendFilterAsync_ = false;
    std::uint32_t flags_ = 0;
    std::uint16_t config_ = 0;
    std::uint16_t max4ReceiveSize_ = 65535;
    // No UDP datagram over IPv6 is larger without jumbograms, which no one sends; a larger
    // limit would only make the receive buffers larger, 16 of them at a time.
    Clamped<std::uint32_t> max6ReceiveSize_{65535, 0, 65535};
    std::uint16_t maxSendSize_ = 65535;
    // setsockopt takes an int, of which the kernel doubles what it is given.
    Clamped<std::size_t> kernelReceiveSize_{0, 0, INT_MAX / 2};
    Family socket4_;
    Family socket6_;
    std::shared_ptr<TimerSource> sendTimer_;
    std::shared_ptr<UdpSendPacket> currentSend_;        // at most one of these two is set:
    std::shared_ptr<UdpSpecialPacket> currentSpecial_;  // the head of the queue being worked on
    std::deque<Packet> sendQueue_;
    std::uint32_t pendingFilterOperations_ = 0;
    // Read in this turn and not yet reported; the turn reports them at its end.
    UdpDatagramBlock received_;
    // What the delegate has of ours and has not finished with.
    const std::shared_ptr<ReceiveBacklog> backlog_ = std::make_shared<ReceiveBacklog>();
    SocketAddress cachedConnectedAddress_;
    std::string cachedConnectedHost_;
    std::uint16_t cachedConnectedPort_ = 0;
    int cachedConnectedFamily_ = 0;
    std::any userData_;
};

template <class F>
void UdpSocket::notifyDelegate(F&& call) {
    reportReceived();  // datagrams read before this event are reported before it
    d_->notifyDelegate(std::forward<F>(call));
}

}  // namespace kavrin
