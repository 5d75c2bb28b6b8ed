#include "osc/transport/UdpSocket.hpp"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <system_error>

#include "osc/dispatch/GlobalQueue.hpp"
#include "osc/dispatch/ReadinessSource.hpp"
#include "osc/dispatch/SerialQueue.hpp"
#include "osc/transport/detail/Fail.hpp"
#include "support/FatalError.hpp"
#include "osc/transport/detail/UdpSocketInternals.hpp"

// The socket's state: construction, its queue, the delegate, the descriptors and their readiness
// sources, closing and inspection. Configuration, binding and connecting, multicast, sending and
// receiving each have a source file of their own.

namespace kavrin {

using namespace udpSocket;

// ---------------------------------------------------------------------------------------------
// Construction

std::shared_ptr<UdpSocket> UdpSocket::create(std::weak_ptr<UdpSocketDelegate> delegate,
                                             std::shared_ptr<DispatchQueue> delegateQueue,
                                             std::shared_ptr<DispatchQueue> socketQueue) {
    std::shared_ptr<SerialQueue> serial;
    if (socketQueue) {
        if (GlobalQueue::isGlobal(socketQueue.get())) {
            fatalError("The given socketQueue parameter must not be a concurrent queue.");
        }
        serial = std::dynamic_pointer_cast<SerialQueue>(socketQueue);
        if (!serial) {
            fatalError("The given socketQueue parameter must be a SerialQueue.");
        }
    } else {
        serial = SerialQueue::create("UdpSocket");
    }
    auto socket = std::make_shared<UdpSocket>(Private{}, std::move(delegate),
                                              std::move(delegateQueue), std::move(serial));
    socket->d_->backlog_->setOnRoom([weak = std::weak_ptr(socket)] {
        if (auto self = weak.lock()) {
            self->d_->socketQueue_->async([self] { self->doReceive(); });
        }
    });
    return socket;
}

std::shared_ptr<UdpSocket> UdpSocket::create(std::shared_ptr<DispatchQueue> socketQueue) {
    return create({}, nullptr, std::move(socketQueue));
}

UdpSocket::UdpSocket(Private, std::weak_ptr<UdpSocketDelegate> delegate,
                     std::shared_ptr<DispatchQueue> delegateQueue,
                     std::shared_ptr<SerialQueue> socketQueue)
    : d_(std::make_unique<State>(*this, std::move(delegate), std::move(delegateQueue),
                                 std::move(socketQueue))) {}

UdpSocket::~UdpSocket() {
    d_->runSync([this] {
        closeWithError(std::nullopt);
        d_->leaveQueue();
    });
}

// ---------------------------------------------------------------------------------------------
// Delegate

std::weak_ptr<UdpSocketDelegate> UdpSocket::delegate() const {
    return d_->query([&] { return d_->delegate_; });
}

void UdpSocket::setDelegate(std::weak_ptr<UdpSocketDelegate> delegate) {
    d_->runSoon([this, delegate = std::move(delegate)] { d_->delegate_ = delegate; });
}

void UdpSocket::synchronouslySetDelegate(std::weak_ptr<UdpSocketDelegate> delegate) {
    d_->runSync([&] { d_->delegate_ = std::move(delegate); });
}

std::shared_ptr<DispatchQueue> UdpSocket::delegateQueue() const {
    return d_->query([&] { return d_->delegateQueue_; });
}

void UdpSocket::setDelegateQueue(std::shared_ptr<DispatchQueue> delegateQueue) {
    d_->runSoon([this, queue = std::move(delegateQueue)] { d_->delegateQueue_ = queue; });
}

void UdpSocket::synchronouslySetDelegateQueue(std::shared_ptr<DispatchQueue> delegateQueue) {
    d_->runSync([&] { d_->delegateQueue_ = std::move(delegateQueue); });
}

void UdpSocket::getDelegate(std::weak_ptr<UdpSocketDelegate>* delegate,
                            std::shared_ptr<DispatchQueue>* delegateQueue) const {
    d_->runSync([&] {
        if (delegate) {
            *delegate = d_->delegate_;
        }
        if (delegateQueue) {
            *delegateQueue = d_->delegateQueue_;
        }
    });
}

void UdpSocket::setDelegate(std::weak_ptr<UdpSocketDelegate> delegate,
                            std::shared_ptr<DispatchQueue> delegateQueue) {
    d_->runSoon([this, delegate = std::move(delegate), queue = std::move(delegateQueue)] {
        d_->delegate_ = delegate;
        d_->delegateQueue_ = queue;
    });
}

void UdpSocket::synchronouslySetDelegate(std::weak_ptr<UdpSocketDelegate> delegate,
                                         std::shared_ptr<DispatchQueue> delegateQueue) {
    d_->runSync([&] {
        d_->delegate_ = std::move(delegate);
        d_->delegateQueue_ = std::move(delegateQueue);
    });
}

// ---------------------------------------------------------------------------------------------
// Descriptors and readiness sources

bool UdpSocket::ensureSockets(UdpSocketError* error) {
    if (d_->flags_ & kSocketsCreated) {
        return true;
    }
    return createSockets((d_->config_ & kIPv4Disabled) == 0, (d_->config_ & kIPv6Disabled) == 0, error);
}

int UdpSocket::createSocket(int domain, UdpSocketError* error) {
    const int fd = ::socket(domain, SOCK_DGRAM, 0);
    if (fd == -1) {
        fail(error, UdpSocketError::errnoError("Error in socket() function"));
        return -1;
    }
    auto failWith = [&](const char* reason) {
        fail(error, UdpSocketError::errnoError(reason));  // before close() can change errno
        ::close(fd);
        return -1;
    };
    if (::fcntl(fd, F_SETFL, O_NONBLOCK) == -1) {
        return failWith("Error enabling non-blocking IO on socket (fcntl)");
    }
    const int on = 1;
    if (::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) {
        return failWith("Error enabling address reuse (setsockopt)");
    }
    // There is no SO_NOSIGPIPE here: every send passes MSG_NOSIGNAL instead.
    // Without IPV6_V6ONLY the IPv6 socket would also take the port for IPv4 and the two
    // sockets could not share it.
    if (domain == AF_INET6 && ::setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on) != 0) {
        return failWith("Error enabling IPv6 only (setsockopt)");
    }
    const int bufferSize = d_->maxSendSize_;
    if (::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &bufferSize, sizeof bufferSize) != 0) {
        return failWith("Error setting send buffer size (setsockopt)");
    }
    // Deliberately sized from the send limit as well, unless the user chose a size.
    if (!applyKernelReceiveBufferSize(fd)) {
        return failWith("Error setting receive buffer size (setsockopt)");
    }
    return fd;
}

bool UdpSocket::createSockets(bool useIPv4, bool useIPv6, UdpSocketError* error) {
    if (d_->flags_ & kSocketsCreated) {
        fatalError("Sockets have already been created");
    }
    if (useIPv4) {
        d_->socket4_.fd = createSocket(AF_INET, error);
        if (d_->socket4_.fd == -1) {
            return false;
        }
    }
    if (useIPv6) {
        d_->socket6_.fd = createSocket(AF_INET6, error);
        if (d_->socket6_.fd == -1) {
            if (d_->socket4_.fd != -1) {
                ::close(d_->socket4_.fd);
                d_->socket4_.fd = -1;
            }
            return false;
        }
    }
    try {
        if (useIPv4) {
            setupSources(d_->socket4_, true);
        }
        if (useIPv6) {
            setupSources(d_->socket6_, false);
        }
    } catch (const std::system_error& e) {
        fail(error, UdpSocketError(UdpSocketError::posixDomain, e.code().value(),
                                   e.code().message(), "Error creating dispatch source"));
        for (Family* f : {&d_->socket4_, &d_->socket6_}) {
            if (f->fd != -1 && !f->sendSource) {
                ::close(f->fd);  // no sources yet to close it
                f->fd = -1;
            }
        }
        closeSocket(d_->socket4_, true);
        closeSocket(d_->socket6_, false);
        return false;
    }
    d_->flags_ |= kSocketsCreated;
    return true;
}

void UdpSocket::setupSources(Family& f, bool isIPv4) {
    std::weak_ptr<UdpSocket> weak = weak_from_this();
    auto sendSource = ReadinessSource::create(f.fd, ReadinessSource::Kind::write, d_->socketQueue_);
    f.receiveSource =
        SuspendableSource(ReadinessSource::create(f.fd, ReadinessSource::Kind::read, d_->socketQueue_));
    // Set last: a send source means both exist.
    f.sendSource = SuspendableSource(std::move(sendSource));
    f.sendSource->setEventHandler([weak, isIPv4] {
        if (auto self = weak.lock()) {
            self->onWritable(isIPv4);
        }
    });
    f.receiveSource->setEventHandler([weak, isIPv4] {
        if (auto self = weak.lock()) {
            self->onReadable(isIPv4);
        }
    });
    // Whichever source is cancelled last closes the descriptor, so neither outlives it.
    auto references = std::make_shared<int>(2);
    auto cancelHandler = [references, fd = f.fd] {
        if (--*references == 0) {
            ::close(fd);
        }
    };
    f.sendSource->setCancelHandler(cancelHandler);
    f.receiveSource->setCancelHandler(cancelHandler);
    f.readable = false;
    d_->flags_ |= writableBit(isIPv4);
}

void UdpSocket::closeSocket(Family& f, bool isIPv4) {
    if (f.fd == -1) {
        return;
    }
    f.sendSource.cancel();
    f.receiveSource.cancel();
    d_->flags_ &= ~writableBit(isIPv4);
    f.fd = -1;
    f.readable = false;
    f.scratch = {};
    f.slots.reset();
    f.slotSize = 0;
    f.cachedLocalAddress = {};
}

void UdpSocket::closeWithError(std::optional<UdpSocketError> error) {
    const bool hadSockets = (d_->flags_ & kSocketsCreated) != 0;
    if (d_->currentSend_ || d_->currentSpecial_) {
        endCurrentSend();
    }
    d_->sendQueue_.clear();
    closeSocket(d_->socket4_, true);
    closeSocket(d_->socket6_, false);
    d_->flags_ = 0;
    d_->cachedConnectedAddress_ = {};
    d_->cachedConnectedHost_.clear();
    d_->cachedConnectedPort_ = 0;
    d_->cachedConnectedFamily_ = 0;
    if (hadSockets) {
        notifyDelegate([error = std::move(error)](UdpSocketDelegate& d, UdpSocket& s) {
            d.udpSocketDidClose(s, error);
        });
    }
}

// ---------------------------------------------------------------------------------------------
// Closing

void UdpSocket::close() {
    d_->runSync([this] { closeWithError(std::nullopt); });
}

void UdpSocket::closeAfterSending() {
    d_->runSync([this] {
        d_->flags_ |= kCloseAfterSends;
        if (!d_->currentSend_ && !d_->currentSpecial_ && d_->sendQueue_.empty()) {
            closeWithError(std::nullopt);
        }
    });
}

// ---------------------------------------------------------------------------------------------
// Inspection

SocketAddress UdpSocket::localAddressIPv4() const {
    return d_->query([&] { return localAddressOf(true); });
}

SocketAddress UdpSocket::localAddressIPv6() const {
    return d_->query([&] { return localAddressOf(false); });
}

SocketAddress UdpSocket::localAddress() const {
    return d_->query([&] { return localAddressOf(d_->socket4_.fd != -1); });
}

SocketAddress UdpSocket::localAddressOf(bool isIPv4) const {
    Family& f = isIPv4 ? d_->socket4_ : d_->socket6_;
    if (f.fd == -1 || !f.cachedLocalAddress.empty()) {
        return f.cachedLocalAddress;
    }
    sockaddr_in6 storage{};
    socklen_t length = sizeof storage;
    if (::getsockname(f.fd, reinterpret_cast<sockaddr*>(&storage), &length) != 0) {
        return {};
    }
    SocketAddress address(&storage, std::min<std::size_t>(length, sizeof storage));
    // Until bound the kernel may still choose the port, so only a bound address is kept.
    if (d_->flags_ & kBound) {
        f.cachedLocalAddress = address;
    }
    return address;
}

std::string UdpSocket::localHost() const {
    return localAddress().host();
}
std::uint16_t UdpSocket::localPort() const {
    return localAddress().port();
}
std::string UdpSocket::localHostIPv4() const {
    return localAddressIPv4().host();
}
std::uint16_t UdpSocket::localPortIPv4() const {
    return localAddressIPv4().port();
}
std::string UdpSocket::localHostIPv6() const {
    return localAddressIPv6().host();
}
std::uint16_t UdpSocket::localPortIPv6() const {
    return localAddressIPv6().port();
}

SocketAddress UdpSocket::connectedAddress() const {
    return d_->query([&] { return d_->cachedConnectedAddress_; });
}

std::string UdpSocket::connectedHost() const {
    return d_->query([&] { return d_->cachedConnectedHost_; });
}

std::uint16_t UdpSocket::connectedPort() const {
    return d_->query([&] { return d_->cachedConnectedPort_; });
}

bool UdpSocket::isConnected() const {
    return d_->query([&] { return (d_->flags_ & kConnected) != 0; });
}

bool UdpSocket::isClosed() const {
    return d_->query([&] { return (d_->flags_ & kSocketsCreated) == 0; });
}

bool UdpSocket::isIPv4() const {
    return d_->query([&] {
        return (d_->flags_ & kConnected) ? d_->cachedConnectedFamily_ == AF_INET : d_->socket4_.fd != -1;
    });
}

bool UdpSocket::isIPv6() const {
    return d_->query([&] {
        return (d_->flags_ & kConnected) ? d_->cachedConnectedFamily_ == AF_INET6 : d_->socket6_.fd != -1;
    });
}

int UdpSocket::socketFD() const {
    int result = -1;
    d_->runSync([&] {
        // Ambiguous with two descriptors: ask for socket4FD or socket6FD then.
        if (d_->socket4_.fd == -1 || d_->socket6_.fd == -1) {
            result = d_->socket4_.fd != -1 ? d_->socket4_.fd : d_->socket6_.fd;
        }
    });
    return result;
}

int UdpSocket::socket4FD() const {
    return d_->query([&] { return d_->socket4_.fd; });
}

int UdpSocket::socket6FD() const {
    return d_->query([&] { return d_->socket6_.fd; });
}

void UdpSocket::performBlock(const std::function<void()>& block) const {
    d_->runSync(block);
}

void UdpSocket::markSocketQueueTargetQueue(SerialQueue& queue) {
    queue.setSpecific(this, this);
}

void UdpSocket::unmarkSocketQueueTargetQueue(SerialQueue& queue) {
    queue.setSpecific(this, nullptr);
}

// ---------------------------------------------------------------------------------------------
// Address blob helpers

bool UdpSocket::getHost(std::string* host, std::uint16_t* port, int* family,
                        const SocketAddress& address) {
    if (!address.isIPv4() && !address.isIPv6()) {
        return false;
    }
    if (host) {
        *host = address.host();
    }
    if (port) {
        *port = address.port();
    }
    if (family) {
        *family = familyFromAddress(address);
    }
    return true;
}

bool UdpSocket::getHost(std::string* host, std::uint16_t* port, const SocketAddress& address) {
    return getHost(host, port, nullptr, address);
}

std::string UdpSocket::hostFromAddress(const SocketAddress& address) {
    return address.host();
}

std::uint16_t UdpSocket::portFromAddress(const SocketAddress& address) {
    return address.port();
}

int UdpSocket::familyFromAddress(const SocketAddress& address) {
    return address.isIPv4() ? AF_INET : address.isIPv6() ? AF_INET6 : AF_UNSPEC;
}

bool UdpSocket::isIPv4Address(const SocketAddress& address) {
    return address.isIPv4();
}

bool UdpSocket::isIPv6Address(const SocketAddress& address) {
    return address.isIPv6();
}

}  // namespace kavrin
