#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <optional>
#include <utility>

#include "osc/dispatch/DispatchQueue.hpp"
#include "osc/transport/TcpSocket.hpp"
#include "osc/transport/detail/HostResolver.hpp"

// What TcpSocket's source files share and nothing else uses: the bits of its state word, its
// name resolver and the definitions of its member templates. Internal to the socket.
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

template <class F>
auto TcpSocket::query(F&& read) const {
    std::optional<decltype(read())> result;
    runSync([&] { result = read(); });
    return *result;
}

template <class F>
void TcpSocket::notifyDelegate(F&& call) {
    auto delegate = delegate_.lock();
    auto self = weak_from_this().lock();  // none while being destroyed: nothing to report to
    if (!delegate || !delegateQueue_ || !self) {
        return;
    }
    delegateQueue_->async([self = std::move(self), delegate = std::move(delegate),
                           call = std::forward<F>(call)]() mutable { call(*delegate, *self); });
}

}  // namespace kavrin
