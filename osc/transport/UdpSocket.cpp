#include "osc/transport/UdpSocket.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <system_error>

#include "osc/dispatch/GlobalQueue.hpp"
#include "osc/dispatch/ReadinessSource.hpp"
#include "osc/dispatch/SerialQueue.hpp"
#include "osc/dispatch/TimerSource.hpp"
#include "osc/transport/detail/DestinationChoice.hpp"
#include "osc/transport/detail/Fail.hpp"
#include "osc/transport/detail/Fatal.hpp"
#include "osc/transport/detail/HostResolver.hpp"
#include "osc/transport/detail/InterfaceAddresses.hpp"
#include "osc/transport/detail/UdpSendPacket.hpp"
#include "osc/transport/detail/UdpSpecialPacket.hpp"

namespace kavrin {

namespace {

// flags
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

// config
constexpr std::uint16_t kIPv4Disabled = 0x1;
constexpr std::uint16_t kIPv6Disabled = 0x2;
constexpr std::uint16_t kPreferIPv4 = 0x4;
constexpr std::uint16_t kPreferIPv6 = 0x8;

constexpr std::uint32_t writableBit(bool isIPv4) {
    return isIPv4 ? kSocket4Writable : kSocket6Writable;
}

constexpr HostResolver kResolver(SOCK_DGRAM, IPPROTO_UDP);

socklen_t lengthOf(const SocketAddress& a) {
    return static_cast<socklen_t>(a.size());
}
const sockaddr* sockaddrOf(const SocketAddress& a) {
    return reinterpret_cast<const sockaddr*>(a.data());
}

// Runs a filter on its queue and waits for the verdict. A serial filter queue that is free runs
// it right here; a busy one is waited for without starving the queues it waits on.
template <class F>
bool runFilterAndWait(DispatchQueue& queue, F&& filter) {
    bool verdict = false;
    queue.sync([&] { verdict = filter(); });
    return verdict;
}

const char* const kNoDelegate =
    "Attempting to use socket without a delegate. Set a delegate first.";
const char* const kNoDelegateQueue =
    "Attempting to use socket without a delegate queue. Set a delegate queue first.";
const char* const kInvalidAddress = "The address param is not a valid IPv4 or IPv6 socket address.";
const char* const kNoFilterQueue =
    "Must provide a dispatch_queue in which to run the filter block.";

}  // namespace

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
    return std::make_shared<UdpSocket>(Private{}, std::move(delegate), std::move(delegateQueue),
                                       std::move(serial));
}

std::shared_ptr<UdpSocket> UdpSocket::create(std::shared_ptr<DispatchQueue> socketQueue) {
    return create({}, nullptr, std::move(socketQueue));
}

UdpSocket::UdpSocket(Private, std::weak_ptr<UdpSocketDelegate> delegate,
                     std::shared_ptr<DispatchQueue> delegateQueue,
                     std::shared_ptr<SerialQueue> socketQueue)
    : delegate_(std::move(delegate)),
      delegateQueue_(std::move(delegateQueue)),
      socketQueue_(std::move(socketQueue)),
      deliveries_([this](std::vector<Datagram> block) { reportDatagrams(std::move(block)); }) {
    // The socket's own address is the queue-specific key, so one queue can serve several
    // sockets and each still knows when it runs on its own queue.
    socketQueue_->setSpecific(this, this);
}

UdpSocket::~UdpSocket() {
    runSync([this] {
        closeWithError(std::nullopt);
        socketQueue_->setSpecific(this, nullptr);
    });
}

// ---------------------------------------------------------------------------------------------
// Queue helpers

bool UdpSocket::onSocketQueue() const {
    return SerialQueue::getSpecific(this) == this;
}

void UdpSocket::runSync(const std::function<void()>& work) const {
    if (onSocketQueue()) {
        work();
    } else {
        socketQueue_->sync(work);
    }
}

void UdpSocket::runSoon(std::function<void()> work) {
    if (onSocketQueue()) {
        work();
    } else {
        socketQueue_->async([self = shared_from_this(), work = std::move(work)] { work(); });
    }
}

template <class F>
auto UdpSocket::query(F&& read) const {
    std::optional<decltype(read())> result;
    runSync([&] { result = read(); });
    return *result;
}

template <class F>
void UdpSocket::notifyDelegate(F&& call) {
    deliveries_.flush();  // datagrams read before this event are reported before it
    auto delegate = delegate_.lock();
    auto self = weak_from_this().lock();  // none while being destroyed: nothing to report to
    if (!delegate || !delegateQueue_ || !self) {
        return;
    }
    delegateQueue_->async([self = std::move(self), delegate = std::move(delegate),
                           call = std::forward<F>(call)]() mutable { call(*delegate, *self); });
}

bool UdpSocket::preCheck(UdpSocketError* error) const {
    if (!delegate_.lock()) {
        return fail(error, UdpSocketError::badConfigError(kNoDelegate));
    }
    if (!delegateQueue_) {
        return fail(error, UdpSocketError::badConfigError(kNoDelegateQueue));
    }
    return true;
}

// ---------------------------------------------------------------------------------------------
// Delegate

std::weak_ptr<UdpSocketDelegate> UdpSocket::delegate() const {
    return query([&] { return delegate_; });
}

void UdpSocket::setDelegate(std::weak_ptr<UdpSocketDelegate> delegate) {
    runSoon([this, delegate = std::move(delegate)] { delegate_ = delegate; });
}

void UdpSocket::synchronouslySetDelegate(std::weak_ptr<UdpSocketDelegate> delegate) {
    runSync([&] { delegate_ = std::move(delegate); });
}

std::shared_ptr<DispatchQueue> UdpSocket::delegateQueue() const {
    return query([&] { return delegateQueue_; });
}

void UdpSocket::setDelegateQueue(std::shared_ptr<DispatchQueue> delegateQueue) {
    runSoon([this, queue = std::move(delegateQueue)] { delegateQueue_ = queue; });
}

void UdpSocket::synchronouslySetDelegateQueue(std::shared_ptr<DispatchQueue> delegateQueue) {
    runSync([&] { delegateQueue_ = std::move(delegateQueue); });
}

void UdpSocket::getDelegate(std::weak_ptr<UdpSocketDelegate>* delegate,
                            std::shared_ptr<DispatchQueue>* delegateQueue) const {
    runSync([&] {
        if (delegate) {
            *delegate = delegate_;
        }
        if (delegateQueue) {
            *delegateQueue = delegateQueue_;
        }
    });
}

void UdpSocket::setDelegate(std::weak_ptr<UdpSocketDelegate> delegate,
                            std::shared_ptr<DispatchQueue> delegateQueue) {
    runSoon([this, delegate = std::move(delegate), queue = std::move(delegateQueue)] {
        delegate_ = delegate;
        delegateQueue_ = queue;
    });
}

void UdpSocket::synchronouslySetDelegate(std::weak_ptr<UdpSocketDelegate> delegate,
                                         std::shared_ptr<DispatchQueue> delegateQueue) {
    runSync([&] {
        delegate_ = std::move(delegate);
        delegateQueue_ = std::move(delegateQueue);
    });
}

// ---------------------------------------------------------------------------------------------
// Configuration

bool UdpSocket::isIPv4Enabled() const {
    return query([&] { return (config_ & kIPv4Disabled) == 0; });
}

void UdpSocket::setIPv4Enabled(bool flag) {
    runSync([&] { config_ = flag ? config_ & ~kIPv4Disabled : config_ | kIPv4Disabled; });
}

bool UdpSocket::isIPv6Enabled() const {
    return query([&] { return (config_ & kIPv6Disabled) == 0; });
}

void UdpSocket::setIPv6Enabled(bool flag) {
    runSync([&] { config_ = flag ? config_ & ~kIPv6Disabled : config_ | kIPv6Disabled; });
}

bool UdpSocket::isIPv4Preferred() const {
    return query([&] { return (config_ & kPreferIPv4) != 0; });
}

bool UdpSocket::isIPv6Preferred() const {
    return query([&] { return (config_ & kPreferIPv6) != 0; });
}

bool UdpSocket::isIPVersionNeutral() const {
    return query([&] { return (config_ & (kPreferIPv4 | kPreferIPv6)) == 0; });
}

void UdpSocket::setPreferIPv4() {
    runSync([&] { config_ = (config_ | kPreferIPv4) & ~kPreferIPv6; });
}

void UdpSocket::setPreferIPv6() {
    runSync([&] { config_ = (config_ & ~kPreferIPv4) | kPreferIPv6; });
}

void UdpSocket::setIPVersionNeutral() {
    runSync([&] { config_ = config_ & ~(kPreferIPv4 | kPreferIPv6); });
}

std::uint16_t UdpSocket::maxReceiveIPv4BufferSize() const {
    return query([&] { return max4ReceiveSize_; });
}

void UdpSocket::setMaxReceiveIPv4BufferSize(std::uint16_t max) {
    runSync([&] { max4ReceiveSize_ = max; });
}

std::uint32_t UdpSocket::maxReceiveIPv6BufferSize() const {
    return query([&] { return max6ReceiveSize_; });
}

void UdpSocket::setMaxReceiveIPv6BufferSize(std::uint32_t max) {
    runSync([&] { max6ReceiveSize_ = max; });
}

std::uint16_t UdpSocket::maxSendBufferSize() const {
    return query([&] { return maxSendSize_; });
}

void UdpSocket::setMaxSendBufferSize(std::uint16_t max) {
    runSync([&] { maxSendSize_ = max; });
}

bool UdpSocket::setKernelReceiveBufferSize(std::size_t bytes, UdpSocketError* error) {
    return query([&] {
        kernelReceiveSize_ = bytes;
        for (const Family* f : {&socket4_, &socket6_}) {
            if (f->fd != -1 && !applyKernelReceiveBufferSize(f->fd)) {
                return fail(error, UdpSocketError::errnoError(
                                       "Error setting receive buffer size (setsockopt)"));
            }
        }
        return true;
    });
}

std::size_t UdpSocket::kernelReceiveBufferSize() const {
    return query([&] { return kernelReceiveSize_; });
}

// A privileged process may pass the system's cap; anyone else gets at most the cap.
bool UdpSocket::applyKernelReceiveBufferSize(int fd) const {
    const std::size_t bytes = kernelReceiveSize_ != 0 ? kernelReceiveSize_ : maxSendSize_;
    const int size = static_cast<int>(std::min<std::size_t>(bytes, INT_MAX / 2));
    if (kernelReceiveSize_ != 0 &&
        ::setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) == 0) {
        return true;
    }
    return ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size) == 0;
}

std::any UdpSocket::userData() const {
    return query([&] { return userData_; });
}

void UdpSocket::setUserData(std::any userData) {
    runSync([&] { userData_ = std::move(userData); });
}

bool UdpSocket::enableReusePort(bool flag, UdpSocketError* error) {
    return query([&] {
        if (!preCheck(error) || !ensureSockets(error)) {
            return false;
        }
        const int value = flag ? 1 : 0;
        bool anySet = false;
        for (Family* f : {&socket4_, &socket6_}) {
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
    return query([&] {
        if (!preCheck(error) || !ensureSockets(error)) {
            return false;
        }
        // Broadcast is an IPv4 notion.
        if (socket4_.fd == -1) {
            return false;
        }
        const int value = flag ? 1 : 0;
        if (::setsockopt(socket4_.fd, SOL_SOCKET, SO_BROADCAST, &value, sizeof value) != 0) {
            return fail(error, UdpSocketError::errnoError("Error in setsockopt() function"));
        }
        return true;
    });
}

// ---------------------------------------------------------------------------------------------
// Descriptors and readiness sources

bool UdpSocket::ensureSockets(UdpSocketError* error) {
    if (flags_ & kSocketsCreated) {
        return true;
    }
    return createSockets((config_ & kIPv4Disabled) == 0, (config_ & kIPv6Disabled) == 0, error);
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
    const int bufferSize = maxSendSize_;
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
    if (flags_ & kSocketsCreated) {
        fatalError("Sockets have already been created");
    }
    if (useIPv4) {
        socket4_.fd = createSocket(AF_INET, error);
        if (socket4_.fd == -1) {
            return false;
        }
    }
    if (useIPv6) {
        socket6_.fd = createSocket(AF_INET6, error);
        if (socket6_.fd == -1) {
            if (socket4_.fd != -1) {
                ::close(socket4_.fd);
                socket4_.fd = -1;
            }
            return false;
        }
    }
    try {
        if (useIPv4) {
            setupSources(socket4_, true);
        }
        if (useIPv6) {
            setupSources(socket6_, false);
        }
    } catch (const std::system_error& e) {
        fail(error, UdpSocketError(UdpSocketError::posixDomain, e.code().value(),
                                   e.code().message(), "Error creating dispatch source"));
        for (Family* f : {&socket4_, &socket6_}) {
            if (f->fd != -1 && !f->sendSource) {
                ::close(f->fd);  // no sources yet to close it
                f->fd = -1;
            }
        }
        closeSocket(socket4_, true);
        closeSocket(socket6_, false);
        return false;
    }
    flags_ |= kSocketsCreated;
    return true;
}

void UdpSocket::setupSources(Family& f, bool isIPv4) {
    std::weak_ptr<UdpSocket> weak = weak_from_this();
    auto sendSource = ReadinessSource::create(f.fd, ReadinessSource::Kind::write, socketQueue_);
    f.receiveSource =
        SuspendableSource(ReadinessSource::create(f.fd, ReadinessSource::Kind::read, socketQueue_));
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
    f.bytesAvailable = 0;
    flags_ |= writableBit(isIPv4);
}

void UdpSocket::closeSocket(Family& f, bool isIPv4) {
    if (f.fd == -1) {
        return;
    }
    f.sendSource.cancel();
    f.receiveSource.cancel();
    flags_ &= ~writableBit(isIPv4);
    f.fd = -1;
    f.bytesAvailable = 0;
    f.scratch = {};
    f.slots.reset();
    f.slotSize = 0;
    f.cachedLocalAddress = {};
}

void UdpSocket::closeWithError(std::optional<UdpSocketError> error) {
    const bool hadSockets = (flags_ & kSocketsCreated) != 0;
    if (currentSend_ || currentSpecial_) {
        endCurrentSend();
    }
    sendQueue_.clear();
    closeSocket(socket4_, true);
    closeSocket(socket6_, false);
    flags_ = 0;
    cachedConnectedAddress_ = {};
    cachedConnectedHost_.clear();
    cachedConnectedPort_ = 0;
    cachedConnectedFamily_ = 0;
    if (hadSockets) {
        notifyDelegate([error = std::move(error)](UdpSocketDelegate& d, UdpSocket& s) {
            d.udpSocketDidClose(s, error);
        });
    }
}

void UdpSocket::resumeDrainedReceiveSources() {
    for (Family* f : {&socket4_, &socket6_}) {
        if (f->bytesAvailable == 0) {
            f->receiveSource.resume();
        }
    }
}

void UdpSocket::suspendReceiveSourcesWithData() {
    for (Family* f : {&socket4_, &socket6_}) {
        if (f->bytesAvailable > 0) {
            f->receiveSource.suspend();
        }
    }
}

void UdpSocket::onWritable(bool isIPv4) {
    flags_ |= writableBit(isIPv4);
    if (currentSend_ && !currentSend_->resolveInProgress && !currentSend_->filterInProgress) {
        doSend();
    } else {
        (isIPv4 ? socket4_ : socket6_).sendSource.suspend();
    }
}

void UdpSocket::onReadable(bool isIPv4) {
    Family& f = isIPv4 ? socket4_ : socket6_;
    // A datagram socket has no end of stream: a zero count is an empty datagram waiting, which
    // the receive step reads and drops, so one empty datagram cannot close the socket.
    f.bytesAvailable = std::max<std::uint64_t>(f.receiveSource->bytesAvailable(), 1);
    doReceive();
}

// ---------------------------------------------------------------------------------------------
// Binding and connecting

bool UdpSocket::bindToPort(std::uint16_t port, UdpSocketError* error) {
    return bindToPort(port, std::nullopt, error);
}

bool UdpSocket::bindToPort(std::uint16_t port, const std::optional<std::string>& interface,
                           UdpSocketError* error) {
    return query([&] {
        if (!bindPreCheck(error)) {
            return false;
        }
        const auto local = InterfaceAddresses::lookUp(interface, port);
        return bindAddresses(local.ipv4, local.ipv6, error);
    });
}

bool UdpSocket::bindToAddress(const SocketAddress& address, UdpSocketError* error) {
    return query([&] {
        if (!bindPreCheck(error)) {
            return false;
        }
        return bindAddresses(address.isIPv4() ? address : SocketAddress{},
                             address.isIPv6() ? address : SocketAddress{}, error);
    });
}

bool UdpSocket::bindPreCheck(UdpSocketError* error) const {
    if (!preCheck(error)) {
        return false;
    }
    if (flags_ & kBound) {
        return fail(error, UdpSocketError::badConfigError("Cannot bind a socket more than once."));
    }
    if (flags_ & (kConnecting | kConnected)) {
        return fail(error, UdpSocketError::badConfigError(
                               "Cannot bind after connecting. If needed, bind first, then "
                               "connect."));
    }
    if ((config_ & (kIPv4Disabled | kIPv6Disabled)) == (kIPv4Disabled | kIPv6Disabled)) {
        return fail(error, UdpSocketError::badConfigError(
                               "Both IPv4 and IPv6 have been disabled. Must enable at least one "
                               "protocol first."));
    }
    return true;
}

bool UdpSocket::bindAddresses(const SocketAddress& address4, const SocketAddress& address6,
                              UdpSocketError* error) {
    const bool ipv4Disabled = (config_ & kIPv4Disabled) != 0;
    const bool ipv6Disabled = (config_ & kIPv6Disabled) != 0;
    if (address4.empty() && address6.empty()) {
        return fail(error, UdpSocketError::badParamError(
                               "Unknown interface. Specify valid interface by name (e.g. \"en1\") "
                               "or IP address."));
    }
    if (ipv4Disabled && address6.empty()) {
        return fail(error, UdpSocketError::badParamError(
                               "IPv4 has been disabled and specified interface doesn't support "
                               "IPv6."));
    }
    if (ipv6Disabled && address4.empty()) {
        return fail(error, UdpSocketError::badParamError(
                               "IPv6 has been disabled and specified interface doesn't support "
                               "IPv4."));
    }
    const bool use4 = !ipv4Disabled && !address4.empty();
    const bool use6 = !ipv6Disabled && !address6.empty();
    if (!(flags_ & kSocketsCreated) && !createSockets(use4, use6, error)) {
        return false;
    }
    auto bindOne = [&](const Family& f, const SocketAddress& address) {
        if (::bind(f.fd, sockaddrOf(address), lengthOf(address)) == 0) {
            return true;
        }
        fail(error, UdpSocketError::errnoError("Error in bind() function"));
        closeSocket(socket4_, true);
        closeSocket(socket6_, false);
        // Nothing is left open, so the next bind, send or reuse makes fresh descriptors.
        flags_ &= ~kSocketsCreated;
        return false;
    };
    if ((use4 && !bindOne(socket4_, address4)) || (use6 && !bindOne(socket6_, address6))) {
        return false;
    }
    flags_ |= kBound;
    if (!use4) {
        flags_ |= kIPv4Deactivated;
    }
    if (!use6) {
        flags_ |= kIPv6Deactivated;
    }
    return true;
}

bool UdpSocket::connectPreCheck(UdpSocketError* error) const {
    if (!preCheck(error)) {
        return false;
    }
    if (flags_ & (kConnecting | kConnected)) {
        return fail(error,
                    UdpSocketError::badConfigError("Cannot connect a socket more than once."));
    }
    return true;
}

bool UdpSocket::connectToHost(const std::string& host, std::uint16_t port, UdpSocketError* error) {
    return query([&] {
        if (!connectPreCheck(error)) {
            return false;
        }
        flags_ |= kConnecting;
        auto packet = std::make_shared<UdpSpecialPacket>();
        packet->resolveInProgress = true;
        kResolver.resolve(host, port, socketQueue_,
                          [self = shared_from_this(), packet](std::vector<SocketAddress> addresses,
                                                              std::optional<UdpSocketError> error) {
                              packet->resolveInProgress = false;
                              packet->addresses = std::move(addresses);
                              packet->error = std::move(error);
                              if (packet == self->currentSpecial_) {
                                  self->maybeConnect();
                              }
                          });
        sendQueue_.push_back(packet);
        maybeDequeueSend();
        return true;
    });
}

bool UdpSocket::connectToAddress(const SocketAddress& address, UdpSocketError* error) {
    return query([&] {
        if (!connectPreCheck(error)) {
            return false;
        }
        if (address.empty()) {
            return fail(error, UdpSocketError::badParamError(
                                   "The address param is nil. Should be a valid address."));
        }
        if (!address.isIPv4() && !address.isIPv6()) {
            return fail(error, UdpSocketError::badParamError(kInvalidAddress));
        }
        flags_ |= kConnecting;
        auto packet = std::make_shared<UdpSpecialPacket>();
        packet->addresses = {address};
        sendQueue_.push_back(packet);
        maybeDequeueSend();
        return true;
    });
}

void UdpSocket::maybeConnect() {
    const auto packet = currentSpecial_;
    if (packet->resolveInProgress) {
        return;  // the resolver's completion comes back here
    }
    UdpSocketError error;
    SocketAddress address;
    int family = 0;
    bool connected = false;
    if (packet->error) {
        error = *packet->error;
    } else if (getAddress(&address, &family, &error, packet->addresses)) {
        connected = connectWithAddress(address, family, &error);
    }
    flags_ &= ~kConnecting;
    if (connected) {
        notifyDelegate([address](UdpSocketDelegate& d, UdpSocket& s) {
            d.udpSocketDidConnectToAddress(s, address);
        });
    } else {
        notifyDelegate(
            [error](UdpSocketDelegate& d, UdpSocket& s) { d.udpSocketDidNotConnect(s, error); });
    }
    endCurrentSend();
    maybeDequeueSend();
}

bool UdpSocket::connectWithAddress(const SocketAddress& address, int family,
                                   UdpSocketError* error) {
    const bool isIPv4 = family == AF_INET;
    if (!(flags_ & kSocketsCreated) && !createSockets(isIPv4, !isIPv4, error)) {
        return false;
    }
    Family& f = isIPv4 ? socket4_ : socket6_;
    if (::connect(f.fd, sockaddrOf(address), lengthOf(address)) != 0) {
        return fail(error, UdpSocketError::errnoError("Error in connect() function"));
    }
    // The other family is of no further use: only the peer is heard from.
    closeSocket(isIPv4 ? socket6_ : socket4_, !isIPv4);
    flags_ |= isIPv4 ? kIPv6Deactivated : kIPv4Deactivated;
    flags_ |= kConnected;
    cachedConnectedAddress_ = address;
    cachedConnectedHost_ = address.host();
    cachedConnectedPort_ = address.port();
    cachedConnectedFamily_ = family;
    return true;
}

// ---------------------------------------------------------------------------------------------
// Multicast

bool UdpSocket::joinMulticastGroup(const std::string& group, UdpSocketError* error) {
    return changeMulticastMembership(group, std::nullopt, true, error);
}

bool UdpSocket::joinMulticastGroup(const std::string& group,
                                   const std::optional<std::string>& interface,
                                   UdpSocketError* error) {
    return changeMulticastMembership(group, interface, true, error);
}

bool UdpSocket::leaveMulticastGroup(const std::string& group, UdpSocketError* error) {
    return changeMulticastMembership(group, std::nullopt, false, error);
}

bool UdpSocket::leaveMulticastGroup(const std::string& group,
                                    const std::optional<std::string>& interface,
                                    UdpSocketError* error) {
    return changeMulticastMembership(group, interface, false, error);
}

bool UdpSocket::changeMulticastMembership(const std::string& group,
                                          const std::optional<std::string>& interface, bool join,
                                          UdpSocketError* error) {
    return query([&] {
        if (!preCheck(error)) {
            return false;
        }
        if (!(flags_ & kBound)) {
            return fail(error, UdpSocketError::badConfigError(
                                   "Must bind a socket before joining a multicast group."));
        }
        if (flags_ & (kConnecting | kConnected)) {
            return fail(error, UdpSocketError::badConfigError(
                                   "Cannot join a multicast group if connected."));
        }
        in_addr group4{};
        in6_addr group6{};
        const bool isGroup4 = ::inet_pton(AF_INET, group.c_str(), &group4) == 1;
        const bool isGroup6 = !isGroup4 && ::inet_pton(AF_INET6, group.c_str(), &group6) == 1;
        if (!isGroup4 && !isGroup6) {
            return fail(error, UdpSocketError::badConfigError(
                                   "Unknown group. Specify valid group IP address."));
        }
        const auto [interface4, interface6] = InterfaceAddresses::lookUp(interface, 0);
        int status = 0;
        if (socket4_.fd != -1 && isGroup4 && !interface4.empty()) {
            sockaddr_in local{};
            std::memcpy(&local, interface4.data(), sizeof local);
            ip_mreq request{};
            request.imr_multiaddr = group4;
            request.imr_interface = local.sin_addr;
            status =
                ::setsockopt(socket4_.fd, IPPROTO_IP, join ? IP_ADD_MEMBERSHIP : IP_DROP_MEMBERSHIP,
                             &request, sizeof request);
        } else if (socket6_.fd != -1 && isGroup6 && !interface6.empty()) {
            ipv6_mreq request{};
            request.ipv6mr_multiaddr = group6;
            request.ipv6mr_interface = interface ? ::if_nametoindex(interface->c_str()) : 0;
            status =
                ::setsockopt(socket6_.fd, IPPROTO_IPV6, join ? IPV6_JOIN_GROUP : IPV6_LEAVE_GROUP,
                             &request, sizeof request);
        } else {
            return fail(error,
                        UdpSocketError::badParamError(
                            "Socket, group, and interface do not have matching IP versions"));
        }
        if (status != 0) {
            return fail(error, UdpSocketError::errnoError("Error in setsockopt() function"));
        }
        return true;
    });
}

bool UdpSocket::sendIPv4MulticastOnInterface(const std::string& interface, UdpSocketError* error) {
    return query([&] {
        if (!preCheck(error) || !ensureSockets(error)) {
            return false;
        }
        const SocketAddress local = InterfaceAddresses::lookUp(interface, 0).ipv4;
        if (local.empty() || socket4_.fd == -1) {
            return fail(error, UdpSocketError::badParamError(
                                   "Unknown interface. Specify valid interface by IP address."));
        }
        sockaddr_in in{};
        std::memcpy(&in, local.data(), sizeof in);
        if (::setsockopt(socket4_.fd, IPPROTO_IP, IP_MULTICAST_IF, &in.sin_addr,
                         sizeof in.sin_addr) != 0) {
            return fail(error, UdpSocketError::errnoError("Error in setsockopt() function"));
        }
        return true;
    });
}

bool UdpSocket::sendIPv6MulticastOnInterface(const std::string& interface, UdpSocketError* error) {
    return query([&] {
        if (!preCheck(error) || !ensureSockets(error)) {
            return false;
        }
        const unsigned index = ::if_nametoindex(interface.c_str());
        if (index == 0 || socket6_.fd == -1) {
            return fail(error,
                        UdpSocketError::badParamError(
                            "Unknown interface. Specify valid interface by name (e.g. \"en1\")."));
        }
        if (::setsockopt(socket6_.fd, IPPROTO_IPV6, IPV6_MULTICAST_IF, &index, sizeof index) != 0) {
            return fail(error, UdpSocketError::errnoError("Error in setsockopt() function"));
        }
        return true;
    });
}

// ---------------------------------------------------------------------------------------------
// Sending

void UdpSocket::sendData(std::vector<std::uint8_t> data, const std::string& host,
                         std::uint16_t port, double timeout, std::int64_t tag) {
    if (data.empty()) {
        return;
    }
    auto packet = std::make_shared<UdpSendPacket>(std::move(data), timeout, tag);
    packet->resolveInProgress = true;
    kResolver.resolve(host, port, socketQueue_,
                      [self = shared_from_this(), packet](std::vector<SocketAddress> addresses,
                                                          std::optional<UdpSocketError> error) {
                          packet->resolveInProgress = false;
                          packet->resolvedAddresses = std::move(addresses);
                          packet->resolveError = std::move(error);
                          if (packet == self->currentSend_) {
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
    socketQueue_->async([self = shared_from_this(), packet = std::move(packet)]() mutable {
        self->sendQueue_.push_back(std::move(packet));
        self->maybeDequeueSend();
    });
}

void UdpSocket::maybeDequeueSend() {
    if (currentSend_ || currentSpecial_) {
        return;
    }
    if (!(flags_ & kSocketsCreated)) {
        UdpSocketError error;
        if (!ensureSockets(&error)) {
            closeWithError(error);
            return;
        }
    }
    while (!sendQueue_.empty()) {
        Packet next = std::move(sendQueue_.front());
        sendQueue_.pop_front();
        if (auto* special = std::get_if<std::shared_ptr<UdpSpecialPacket>>(&next)) {
            currentSpecial_ = std::move(*special);
            maybeConnect();
            return;
        }
        auto packet = std::get<std::shared_ptr<UdpSendPacket>>(std::move(next));
        if (packet->resolveError) {
            notifyDidNotSend(packet->tag, *packet->resolveError);
            continue;
        }
        currentSend_ = std::move(packet);
        doPreSend();
        return;
    }
    if (flags_ & kCloseAfterSends) {
        closeWithError(std::nullopt);
    }
}

bool UdpSocket::getAddress(SocketAddress* address, int* family, UdpSocketError* error,
                           const std::vector<SocketAddress>& addresses) const {
    const FamilyAllowance ipv4{(config_ & kIPv4Disabled) != 0, (flags_ & kIPv4Deactivated) != 0,
                               (config_ & kPreferIPv4) != 0};
    const FamilyAllowance ipv6{(config_ & kIPv6Disabled) != 0, (flags_ & kIPv6Deactivated) != 0,
                               (config_ & kPreferIPv6) != 0};
    if (!chooseDestination(addresses, ipv4, ipv6, address, error)) {
        return false;
    }
    *family = address->family();
    return true;
}

void UdpSocket::doPreSend() {
    UdpSendPacket& packet = *currentSend_;
    std::optional<UdpSocketError> failure;
    if (flags_ & kConnected) {
        const bool namesDestination = packet.resolveInProgress || packet.resolveError ||
                                      !packet.resolvedAddresses.empty() || !packet.address.empty();
        if (namesDestination) {
            failure = UdpSocketError::badConfigError(
                "Cannot specify destination of packet for connected socket");
        } else {
            packet.address = cachedConnectedAddress_;
            packet.addressFamily = cachedConnectedFamily_;
        }
    } else if (packet.resolveInProgress) {
        // Nothing to write until the resolver answers; its completion comes back here.
        if (flags_ & kSocket4Writable) {
            socket4_.sendSource.suspend();
        }
        if (flags_ & kSocket6Writable) {
            socket6_.sendSource.suspend();
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
    if (!sendFilter_) {
        doSend();
        return;
    }
    if (!sendFilterAsync_) {
        const bool allowed = runFilterAndWait(*sendFilterQueue_, [&] {
            return sendFilter_(packet.buffer, packet.address, packet.tag);
        });
        finishSendFilter(allowed);
        return;
    }
    packet.filterInProgress = true;
    sendFilterQueue_->async(
        [self = shared_from_this(), filter = sendFilter_, packet = currentSend_] {
            const bool allowed = filter(packet->buffer, packet->address, packet->tag);
            self->socketQueue_->async([self, packet, allowed] {
                packet->filterInProgress = false;
                if (packet == self->currentSend_) {  // else closed meanwhile
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
    notifyDidSend(currentSend_->tag);
    endCurrentSend();
    maybeDequeueSend();
}

void UdpSocket::doSend() {
    if (!currentSend_) {
        fatalError("Invalid logic: send step without a current send");
    }
    const UdpSendPacket& packet = *currentSend_;
    const bool isIPv4 = packet.addressFamily == AF_INET;
    const int fd = isIPv4 ? socket4_.fd : socket6_.fd;
    ssize_t result;
    if (flags_ & kConnected) {
        result = ::send(fd, packet.buffer.data(), packet.buffer.size(), MSG_NOSIGNAL);
    } else {
        result = ::sendto(fd, packet.buffer.data(), packet.buffer.size(), MSG_NOSIGNAL,
                          sockaddrOf(packet.address), lengthOf(packet.address));
    }
    const int sendErrno = errno;
    // The kernel binds an unbound socket on its first datagram.
    flags_ |= kBound;
    if (result > 0) {
        notifyDidSend(packet.tag);
        endCurrentSend();
        maybeDequeueSend();
        return;
    }
    if (result == 0 || sendErrno == EAGAIN || sendErrno == EWOULDBLOCK) {
        // Full: wait for the socket to accept bytes again.
        flags_ &= ~writableBit(isIPv4);
        if (!(flags_ & kSocket4Writable)) {
            socket4_.sendSource.resume();
        }
        if (!(flags_ & kSocket6Writable)) {
            socket6_.sendSource.resume();
        }
        if (!sendTimer_ && packet.timeout >= 0.0) {
            setupSendTimer(packet.timeout);
        }
        return;
    }
    errno = sendErrno;
    closeWithError(UdpSocketError::errnoError("Error in send() function."));
}

void UdpSocket::setupSendTimer(double timeout) {
    sendTimer_ = TimerSource::create(socketQueue_);
    sendTimer_->setEventHandler([weak = weak_from_this(), timer = sendTimer_.get()] {
        auto self = weak.lock();
        if (!self || self->sendTimer_.get() != timer || !self->currentSend_) {
            return;  // the send ended before the timer fired
        }
        const std::int64_t tag = self->currentSend_->tag;
        self->notifyDidNotSend(tag, UdpSocketError::sendTimeoutError());
        self->endCurrentSend();
        self->maybeDequeueSend();
    });
    sendTimer_->schedule(std::chrono::duration_cast<DispatchQueue::Clock::duration>(
        std::chrono::duration<double>(timeout)));
    sendTimer_->resume();
}

void UdpSocket::endCurrentSend() {
    if (sendTimer_) {
        sendTimer_->cancel();
        sendTimer_.reset();
    }
    currentSend_.reset();
    currentSpecial_.reset();
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
    runSoon([this, filter = std::move(filter), queue = std::move(queue), isAsynchronous] {
        sendFilter_ = filter;
        sendFilterQueue_ = filter ? queue : nullptr;
        sendFilterAsync_ = isAsynchronous;
    });
}

// ---------------------------------------------------------------------------------------------
// Receiving

bool UdpSocket::receiveOnce(UdpSocketError* error) {
    return startReceiving(false, error);
}

bool UdpSocket::beginReceiving(UdpSocketError* error) {
    return startReceiving(true, error);
}

bool UdpSocket::startReceiving(bool continuous, UdpSocketError* error) {
    const std::uint32_t mode = continuous ? kReceiveContinuous : kReceiveOnce;
    const std::uint32_t other = continuous ? kReceiveOnce : kReceiveContinuous;
    return query([&] {
        if (flags_ & mode) {
            return true;
        }
        // Deliberately tested on the descriptors, not on Bound: after port reuse they exist.
        if (!(flags_ & kSocketsCreated)) {
            return fail(error,
                        UdpSocketError::badConfigError(
                            "Must bind socket before you can receive data. You can do this "
                            "explicitly via bind, or implicitly via connect or by sending data."));
        }
        flags_ = (flags_ | mode) & ~other;
        socketQueue_->async([self = shared_from_this()] { self->doReceive(); });
        return true;
    });
}

void UdpSocket::pauseReceiving() {
    runSync([&] {
        flags_ &= ~(kReceiveOnce | kReceiveContinuous);
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
    runSoon([this, filter = std::move(filter), queue = std::move(queue), isAsynchronous] {
        receiveFilter_ = filter;
        receiveFilterQueue_ = filter ? queue : nullptr;
        receiveFilterAsync_ = isAsynchronous;
    });
}

// Reads until the descriptors are drained or a batch is full. The datagrams read go to the
// delegate queue in blocks (deliveries_), the last at the end of the turn. A full batch yields
// the socket queue to other work; the read sources, resumed, bring us back.
void UdpSocket::doReceive() {
    constexpr int kBatch = 64;
    for (int read = 0;; ++read) {
        if (!(flags_ & (kReceiveOnce | kReceiveContinuous))) {
            suspendReceiveSourcesWithData();
            break;
        }
        if ((flags_ & kReceiveOnce) && pendingFilterOperations_ > 0) {
            suspendReceiveSourcesWithData();
            break;
        }
        const bool has4 = socket4_.bytesAvailable > 0;
        const bool has6 = socket6_.bytesAvailable > 0;
        if ((!has4 && !has6) || read == kBatch) {
            socket4_.receiveSource.resume();
            socket6_.receiveSource.resume();
            break;
        }
        bool useIPv4 = has4;
        if (has4 && has6) {
            if (flags_ & kConnected) {
                useIPv4 = cachedConnectedFamily_ == AF_INET;
            } else {
                const bool wasClear = !(flags_ & kFlipFlop);
                flags_ ^= kFlipFlop;
                useIPv4 = !wasClear;
            }
        }
        const bool batched = (flags_ & kReceiveContinuous) && !receiveFilter_;
        if (!(batched ? receiveMany(useIPv4) : receiveOne(useIPv4))) {
            break;
        }
    }
    deliveries_.flush();
}

bool UdpSocket::receiveOne(bool isIPv4) {
    Family& f = isIPv4 ? socket4_ : socket6_;
    const std::size_t limit = isIPv4 ? max4ReceiveSize_ : max6ReceiveSize_;
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
        f.bytesAvailable = 0;
    } else {
        // The kernel reports the size of the next datagram only, not of all that wait: keep
        // reading until it says there is nothing left.
        const auto size = static_cast<std::uint64_t>(result);
        f.bytesAvailable = f.bytesAvailable > size ? f.bytesAvailable - size : 1;
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
    std::vector<std::uint8_t> data(f.scratch.begin(), f.scratch.begin() + result);
    const SocketAddress address(&source, std::min<std::size_t>(sourceLength, sizeof source));
    if ((flags_ & kConnected) && !address.sameEndpoint(cachedConnectedAddress_)) {
        return true;  // not from the peer: dropped
    }
    if (!receiveFilter_) {
        deliver(std::move(data), address, {});
        return true;
    }
    if (!receiveFilterAsync_) {
        std::any context;
        const bool allowed = runFilterAndWait(
            *receiveFilterQueue_, [&] { return receiveFilter_(data, address, context); });
        if (allowed) {
            deliver(std::move(data), address, std::move(context));
        }
        return true;
    }
    ++pendingFilterOperations_;
    receiveFilterQueue_->async([self = shared_from_this(), filter = receiveFilter_,
                                data = std::move(data), address]() mutable {
        std::any context;
        const bool allowed = filter(data, address, context);
        self->socketQueue_->async([self, allowed, data = std::move(data), address,
                                   context = std::move(context)]() mutable {
            --self->pendingFilterOperations_;
            if (allowed) {
                self->deliver(std::move(data), address, std::move(context));
                self->deliveries_.flush();
            }
            // In once-mode the read waited for this verdict.
            if (self->flags_ & kReceiveOnce) {
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
    constexpr unsigned kSlots = 16;
    Family& f = isIPv4 ? socket4_ : socket6_;
    const std::size_t limit = isIPv4 ? max4ReceiveSize_ : max6ReceiveSize_;
    if (limit == 0) {
        return receiveOne(isIPv4);
    }
    if (f.slotSize != limit) {
        f.slots.reset(new std::uint8_t[kSlots * limit]);
        f.slotSize = limit;
    }
    mmsghdr messages[kSlots];
    iovec buffers[kSlots];
    sockaddr_in6 sources[kSlots];
    for (unsigned i = 0; i < kSlots; ++i) {
        buffers[i] = {f.slots.get() + i * limit, limit};
        messages[i] = {};
        messages[i].msg_hdr.msg_name = &sources[i];
        messages[i].msg_hdr.msg_namelen = isIPv4 ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
        messages[i].msg_hdr.msg_iov = &buffers[i];
        messages[i].msg_hdr.msg_iovlen = 1;
    }
    const int count = ::recvmmsg(f.fd, messages, kSlots, 0, nullptr);
    if (count < 0) {
        const int receiveErrno = errno;
        f.bytesAvailable = 0;
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
        const std::uint8_t* bytes = f.slots.get() + i * limit;
        const SocketAddress address(
            &sources[i],
            std::min<std::size_t>(messages[i].msg_hdr.msg_namelen, sizeof(sockaddr_in6)));
        if ((flags_ & kConnected) && !address.sameEndpoint(cachedConnectedAddress_)) {
            continue;  // not from the peer: dropped
        }
        deliver(std::vector<std::uint8_t>(bytes, bytes + size), address, {});
    }
    // Fewer than asked for: the descriptor is drained for now.
    if (count < static_cast<int>(kSlots)) {
        f.bytesAvailable = 0;
        resumeDrainedReceiveSources();
        return false;
    }
    f.bytesAvailable = 1;
    return true;
}

void UdpSocket::deliver(std::vector<std::uint8_t> data, const SocketAddress& address,
                        std::any context) {
    deliveries_.add({std::move(data), address, std::move(context)});
    if (flags_ & kReceiveOnce) {
        flags_ &= ~(kReceiveOnce | kReceiveContinuous);
    }
}

void UdpSocket::reportDatagrams(std::vector<Datagram> batch) {
    auto delegate = delegate_.lock();
    auto self = weak_from_this().lock();
    if (!delegate || !delegateQueue_ || !self) {
        return;
    }
    delegateQueue_->async([self = std::move(self), delegate = std::move(delegate),
                           batch = std::move(batch)]() mutable {
        for (auto& datagram : batch) {
            delegate->udpSocketDidReceiveData(*self, std::move(datagram.data), datagram.address,
                                              datagram.context);
        }
    });
}

// ---------------------------------------------------------------------------------------------
// Closing

void UdpSocket::close() {
    runSync([this] { closeWithError(std::nullopt); });
}

void UdpSocket::closeAfterSending() {
    runSync([this] {
        flags_ |= kCloseAfterSends;
        if (!currentSend_ && !currentSpecial_ && sendQueue_.empty()) {
            closeWithError(std::nullopt);
        }
    });
}

// ---------------------------------------------------------------------------------------------
// Inspection

SocketAddress UdpSocket::localAddressIPv4() const {
    return query([&] { return localAddressOf(true); });
}

SocketAddress UdpSocket::localAddressIPv6() const {
    return query([&] { return localAddressOf(false); });
}

SocketAddress UdpSocket::localAddress() const {
    return query([&] { return localAddressOf(socket4_.fd != -1); });
}

SocketAddress UdpSocket::localAddressOf(bool isIPv4) const {
    Family& f = isIPv4 ? socket4_ : socket6_;
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
    if (flags_ & kBound) {
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
    return query([&] { return cachedConnectedAddress_; });
}

std::string UdpSocket::connectedHost() const {
    return query([&] { return cachedConnectedHost_; });
}

std::uint16_t UdpSocket::connectedPort() const {
    return query([&] { return cachedConnectedPort_; });
}

bool UdpSocket::isConnected() const {
    return query([&] { return (flags_ & kConnected) != 0; });
}

bool UdpSocket::isClosed() const {
    return query([&] { return (flags_ & kSocketsCreated) == 0; });
}

bool UdpSocket::isIPv4() const {
    return query([&] {
        return (flags_ & kConnected) ? cachedConnectedFamily_ == AF_INET : socket4_.fd != -1;
    });
}

bool UdpSocket::isIPv6() const {
    return query([&] {
        return (flags_ & kConnected) ? cachedConnectedFamily_ == AF_INET6 : socket6_.fd != -1;
    });
}

int UdpSocket::socketFD() const {
    int result = -1;
    runSync([&] {
        // Ambiguous with two descriptors: ask for socket4FD or socket6FD then.
        if (socket4_.fd == -1 || socket6_.fd == -1) {
            result = socket4_.fd != -1 ? socket4_.fd : socket6_.fd;
        }
    });
    return result;
}

int UdpSocket::socket4FD() const {
    return query([&] { return socket4_.fd; });
}

int UdpSocket::socket6FD() const {
    return query([&] { return socket6_.fd; });
}

void UdpSocket::performBlock(const std::function<void()>& block) const {
    runSync(block);
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
