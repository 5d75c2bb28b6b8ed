#include "osc/transport/UdpSocket.hpp"

#include <sys/socket.h>

#include <algorithm>
#include <climits>

#include "osc/transport/detail/Fail.hpp"
#include "osc/transport/detail/UdpSocketInternals.hpp"

// The socket's settings: IP versions and preference, buffer sizes, user data and the socket
// options that create the descriptors on demand.

namespace kavrin {

using namespace udpSocket;

bool UdpSocket::isIPv4Enabled() const {
    return d_->query([&] { return (d_->config_ & kIPv4Disabled) == 0; });
}

void UdpSocket::setIPv4Enabled(bool flag) {
    d_->runSync([&] { d_->config_ = flag ? d_->config_ & ~kIPv4Disabled : d_->config_ | kIPv4Disabled; });
}

bool UdpSocket::isIPv6Enabled() const {
    return d_->query([&] { return (d_->config_ & kIPv6Disabled) == 0; });
}

void UdpSocket::setIPv6Enabled(bool flag) {
    d_->runSync([&] { d_->config_ = flag ? d_->config_ & ~kIPv6Disabled : d_->config_ | kIPv6Disabled; });
}

bool UdpSocket::isIPv4Preferred() const {
    return d_->query([&] { return (d_->config_ & kPreferIPv4) != 0; });
}

bool UdpSocket::isIPv6Preferred() const {
    return d_->query([&] { return (d_->config_ & kPreferIPv6) != 0; });
}

bool UdpSocket::isIPVersionNeutral() const {
    return d_->query([&] { return (d_->config_ & (kPreferIPv4 | kPreferIPv6)) == 0; });
}

void UdpSocket::setPreferIPv4() {
    d_->runSync([&] { d_->config_ = (d_->config_ | kPreferIPv4) & ~kPreferIPv6; });
}

void UdpSocket::setPreferIPv6() {
    d_->runSync([&] { d_->config_ = (d_->config_ & ~kPreferIPv4) | kPreferIPv6; });
}

void UdpSocket::setIPVersionNeutral() {
    d_->runSync([&] { d_->config_ = d_->config_ & ~(kPreferIPv4 | kPreferIPv6); });
}

std::uint16_t UdpSocket::maxReceiveIPv4BufferSize() const {
    return d_->query([&] { return d_->max4ReceiveSize_; });
}

void UdpSocket::setMaxReceiveIPv4BufferSize(std::uint16_t max) {
    d_->runSync([&] { d_->max4ReceiveSize_ = max; });
}

std::uint32_t UdpSocket::maxReceiveIPv6BufferSize() const {
    return d_->query([&] { return d_->max6ReceiveSize_.value(); });
}

void UdpSocket::setMaxReceiveIPv6BufferSize(std::uint32_t max) {
    d_->runSync([&] { d_->max6ReceiveSize_ = max; });
}

std::uint16_t UdpSocket::maxSendBufferSize() const {
    return d_->query([&] { return d_->maxSendSize_; });
}

void UdpSocket::setMaxSendBufferSize(std::uint16_t max) {
    d_->runSync([&] { d_->maxSendSize_ = max; });
}

bool UdpSocket::setKernelReceiveBufferSize(std::size_t bytes, UdpSocketError* error) {
    return d_->query([&] {
        d_->kernelReceiveSize_ = bytes;
        for (const Family* f : {&d_->socket4_, &d_->socket6_}) {
            if (f->fd != -1 && !applyKernelReceiveBufferSize(f->fd)) {
                return fail(error, UdpSocketError::errnoError(
                                       "Error setting receive buffer size (setsockopt)"));
            }
        }
        return true;
    });
}

std::size_t UdpSocket::kernelReceiveBufferSize() const {
    return d_->query([&] { return d_->kernelReceiveSize_.value(); });
}

void UdpSocket::setMaxReceiveBacklog(std::size_t bytes) {
    d_->runSync([&] {
        d_->backlog_->setLimit(bytes);
        doReceive();  // a raised limit may let a waiting read go on
    });
}

std::size_t UdpSocket::maxReceiveBacklog() const {
    return d_->backlog_->limit();
}

// A privileged process may pass the system's cap; anyone else gets at most the cap.
bool UdpSocket::applyKernelReceiveBufferSize(int fd) const {
    const std::size_t asked = d_->kernelReceiveSize_;
    const int size = static_cast<int>(asked != 0 ? asked : d_->maxSendSize_);
    if (asked != 0 &&
        ::setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) == 0) {
        return true;
    }
    return ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size) == 0;
}

std::any UdpSocket::userData() const {
    return d_->query([&] { return d_->userData_; });
}

void UdpSocket::setUserData(std::any userData) {
    d_->runSync([&] { d_->userData_ = std::move(userData); });
}

bool UdpSocket::enableReusePort(bool flag, UdpSocketError* error) {
    return d_->query([&] {
        if (!d_->preCheck(error) || !ensureSockets(error)) {
            return false;
        }
        const int value = flag ? 1 : 0;
        bool anySet = false;
        for (Family* f : {&d_->socket4_, &d_->socket6_}) {
            if (f->fd == -1) {
                continue;
            }
            if (::setsockopt(f->fd, SOL_SOCKET, SO_REUSEPORT, &value, sizeof value) != 0) {
                return fail(error, UdpSocketError::errnoError("Error in setsockopt() function"));
            }
            anySet = true;
        }
        return anySet;
    });
}

bool UdpSocket::enableBroadcast(bool flag, UdpSocketError* error) {
    return d_->query([&] {
        if (!d_->preCheck(error) || !ensureSockets(error)) {
            return false;
        }
        // Broadcast is an IPv4 notion.
        if (d_->socket4_.fd == -1) {
            return false;
        }
        const int value = flag ? 1 : 0;
        if (::setsockopt(d_->socket4_.fd, SOL_SOCKET, SO_BROADCAST, &value, sizeof value) != 0) {
            return fail(error, UdpSocketError::errnoError("Error in setsockopt() function"));
        }
        return true;
    });
}

}  // namespace kavrin
