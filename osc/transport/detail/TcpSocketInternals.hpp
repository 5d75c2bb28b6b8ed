#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <utility>

#include "osc/dispatch/DispatchQueue.hpp"
#include "osc/transport/TcpSocket.hpp"
#include "osc/transport/detail/HostResolver.hpp"
#include "osc/transport/detail/InboundBuffer.hpp"
#include "osc/transport/detail/SocketCore.hpp"
#include "osc/transport/detail/SuspendableSource.hpp"

// What TcpSocket's source files share and nothing else uses: its state, the bits of its state
// word and its name resolver. Internal to the socket.
namespace kavrin::tcpSocket {

// State (flags_).
constexpr std::uint32_t kConnecting = 0x1;
constexpr std::uint32_t kConnected = 0x2;
constexpr std::uint32_t kAccepting = 0x4;
constexpr std::uint32_t kSecure = 0x8;
constexpr std::uint32_t kStartedTLS = 0x10;  // startTLS was called
constexpr std::uint32_t kHandshaking = 0x20;
constexpr std::uint32_t kEndOfStream = 0x40;  // the peer will send nothing more
constexpr std::uint32_t kWriteShutdownAsked = 0x80;
constexpr std::uint32_t kWriteShut = 0x100;
constexpr std::uint32_t kDisconnectAfterReads = 0x200;
constexpr std::uint32_t kDisconnectAfterWrites = 0x400;
// What the descriptor must become for the work in progress to go on; updateSources() resumes
// the readiness sources from these and suspends the rest.
constexpr std::uint32_t kConnectWaits = 0x1000;         // writable
constexpr std::uint32_t kReadWaits = 0x2000;            // readable
constexpr std::uint32_t kReadWaitsWritable = 0x4000;    // TLS: a read needs to write first
constexpr std::uint32_t kWriteWaits = 0x8000;           // writable
constexpr std::uint32_t kWriteWaitsReadable = 0x10000;  // TLS: a write needs to read first
constexpr std::uint32_t kHandshakeWaitsReadable = 0x20000;
constexpr std::uint32_t kHandshakeWaitsWritable = 0x40000;

constexpr std::uint32_t kWaitsReadable = kReadWaits | kWriteWaitsReadable | kHandshakeWaitsReadable;
constexpr std::uint32_t kWaitsWritable =
    kConnectWaits | kWriteWaits | kReadWaitsWritable | kHandshakeWaitsWritable;

inline constexpr HostResolver kResolver(SOCK_STREAM, IPPROTO_TCP);


}  // namespace kavrin::tcpSocket

namespace kavrin {

struct TcpSocket::Descriptor {
    int fd = -1;
    SuspendableSource readSource;
    SuspendableSource writeSource;  // none on a listener
};

struct TcpSocket::State : SocketCore<TcpSocket, TcpSocketDelegate, TcpSocketError> {
    using SocketCore::SocketCore;
    using Clock = std::chrono::steady_clock;

    std::uint32_t flags_ = 0;
    bool noDelay_ = false;
    bool keepAlive_ = false;
    std::size_t maxAccepted_ = defaultMaxAcceptedConnections;
    double acceptedIdleTimeout_ = defaultAcceptedIdleTimeout;

    Descriptor connection_;
    Descriptor listener4_;
    Descriptor listener6_;
    SocketAddress localAddress_;
    SocketAddress connectedAddress_;
    std::string connectedHost_;  // as the user named it, for reports and the TLS peer name

    // Connecting.
    std::uint64_t attempt_ = 0;  // a connect's number: answers to an older one are stale
    std::vector<SocketAddress> candidates_;
    std::size_t nextCandidate_ = 0;
    std::optional<std::string> connectInterface_;
    std::optional<TcpSocketError> lastConnectError_;
    std::shared_ptr<TimerSource> connectTimer_;

    // Accepting, and an accepted connection's share of its listener's count.
    std::shared_ptr<std::atomic<std::size_t>> acceptedCount_;
    std::shared_ptr<TimerSource> acceptRetryTimer_;
    std::shared_ptr<TimerSource> idleTimer_;
    double idleTimeout_ = -1.0;
    Clock::time_point lastActivity_;

    // Reading.
    std::deque<std::shared_ptr<TcpReadRequest>> readQueue_;
    std::shared_ptr<TcpReadRequest> currentRead_;
    InboundBuffer inbound_;  // received, not yet taken by a read
    std::shared_ptr<TimerSource> readTimer_;

    // Writing. The two counters are also touched by write() on the caller's thread.
    std::deque<std::shared_ptr<TcpWriteRequest>> writeQueue_;
    std::shared_ptr<TcpWriteRequest> currentWrite_;
    std::shared_ptr<TimerSource> writeTimer_;
    std::atomic<std::size_t> queuedWriteBytes_{0};
    std::atomic<std::size_t> maxWriteQueue_{defaultMaxWriteQueueLength};

    std::shared_ptr<TlsSession> tls_;
    std::shared_ptr<TimerSource> handshakeTimer_;
};

}  // namespace kavrin
