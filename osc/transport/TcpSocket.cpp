#include "osc/transport/TcpSocket.hpp"

#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <system_error>

#include "osc/dispatch/ReadinessSource.hpp"
#include "osc/dispatch/SerialQueue.hpp"
#include "osc/dispatch/TimerSource.hpp"
#include "osc/transport/detail/Fail.hpp"
#include "osc/transport/detail/TcpReadRequest.hpp"
#include "osc/transport/detail/TcpSocketInternals.hpp"
#include "osc/transport/detail/TcpWriteRequest.hpp"
#include "osc/transport/detail/TlsSession.hpp"

// The socket's state: construction, its queue, the delegate, options, the descriptors and their
// readiness sources, timers, disconnecting and inspection. Connecting, accepting, reading,
// writing and TLS each have a source file of their own.

namespace kavrin {

using namespace tcpSocket;

// ---------------------------------------------------------------------------------------------
// Construction

std::shared_ptr<TcpSocket> TcpSocket::create(std::weak_ptr<TcpSocketDelegate> delegate,
                                             std::shared_ptr<DispatchQueue> delegateQueue,
                                             std::shared_ptr<SerialQueue> socketQueue) {
    if (!socketQueue) {
        socketQueue = SerialQueue::create("TcpSocket");
    }
    return std::make_shared<TcpSocket>(Private{}, std::move(delegate), std::move(delegateQueue),
                                       std::move(socketQueue));
}

TcpSocket::TcpSocket(Private, std::weak_ptr<TcpSocketDelegate> delegate,
                     std::shared_ptr<DispatchQueue> delegateQueue,
                     std::shared_ptr<SerialQueue> socketQueue)
    : delegate_(std::move(delegate)),
      delegateQueue_(std::move(delegateQueue)),
      socketQueue_(std::move(socketQueue)) {
    // As UdpSocket does: the socket's address is its queue-specific key, so one queue can serve
    // several sockets and each still knows when it runs on its own queue.
    socketQueue_->setSpecific(this, this);
}

TcpSocket::~TcpSocket() {
    runSync([this] {
        closeWithError(std::nullopt);
        socketQueue_->setSpecific(this, nullptr);
    });
}

// ---------------------------------------------------------------------------------------------
// Queue helpers

bool TcpSocket::onSocketQueue() const {
    return SerialQueue::getSpecific(this) == this;
}

void TcpSocket::runSync(const std::function<void()>& work) const {
    if (onSocketQueue()) {
        work();
    } else {
        socketQueue_->sync(work);
    }
}

void TcpSocket::runSoon(std::function<void()> work) {
    if (onSocketQueue()) {
        work();
    } else {
        post(std::move(work));
    }
}

void TcpSocket::post(std::function<void()> work) {
    socketQueue_->async([self = shared_from_this(), work = std::move(work)] { work(); });
}

bool TcpSocket::preCheck(TcpSocketError* error) const {
    if (!delegate_.lock()) {
        return fail(error, TcpSocketError::badConfigError(
                               "Attempting to use socket without a delegate. Set a delegate first."));
    }
    if (!delegateQueue_) {
        return fail(error, TcpSocketError::badConfigError(
                               "Attempting to use socket without a delegate queue. Set a delegate "
                               "queue first."));
    }
    return true;
}

// What connecting and accepting both ask of the socket.
bool TcpSocket::startCheck(TcpSocketError* error) const {
    if (!preCheck(error)) {
        return false;
    }
    if (flags_ & (kConnecting | kConnected | kAccepting)) {
        return fail(error, TcpSocketError::badConfigError(
                               "Attempting to connect or accept while connected or accepting. "
                               "Disconnect first."));
    }
    return true;
}

// ---------------------------------------------------------------------------------------------
// Delegate

std::weak_ptr<TcpSocketDelegate> TcpSocket::delegate() const {
    return query([&] { return delegate_; });
}

std::shared_ptr<DispatchQueue> TcpSocket::delegateQueue() const {
    return query([&] { return delegateQueue_; });
}

void TcpSocket::setDelegate(std::weak_ptr<TcpSocketDelegate> delegate,
                            std::shared_ptr<DispatchQueue> delegateQueue) {
    runSoon([this, delegate = std::move(delegate), queue = std::move(delegateQueue)] {
        delegate_ = delegate;
        delegateQueue_ = queue;
    });
}

void TcpSocket::synchronouslySetDelegate(std::weak_ptr<TcpSocketDelegate> delegate,
                                         std::shared_ptr<DispatchQueue> delegateQueue) {
    runSync([&] {
        delegate_ = std::move(delegate);
        delegateQueue_ = std::move(delegateQueue);
    });
}

// ---------------------------------------------------------------------------------------------
// Options

bool TcpSocket::setNoDelay(bool flag, TcpSocketError* error) {
    return query([&] {
        noDelay_ = flag;
        return connection_.fd == -1 || applyOptions(connection_.fd, error);
    });
}

bool TcpSocket::setKeepAlive(bool flag, TcpSocketError* error) {
    return query([&] {
        keepAlive_ = flag;
        return connection_.fd == -1 || applyOptions(connection_.fd, error);
    });
}

bool TcpSocket::applyOptions(int fd, TcpSocketError* error) const {
    const int noDelay = noDelay_ ? 1 : 0;
    if (::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay) != 0) {
        return fail(error, TcpSocketError::errnoError("Error setting TCP_NODELAY (setsockopt)"));
    }
    const int keepAlive = keepAlive_ ? 1 : 0;
    if (::setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &keepAlive, sizeof keepAlive) != 0) {
        return fail(error, TcpSocketError::errnoError("Error setting SO_KEEPALIVE (setsockopt)"));
    }
    return true;
}

void TcpSocket::setMaxAcceptedConnections(std::size_t count) {
    runSync([&] { maxAccepted_ = count; });
}

std::size_t TcpSocket::maxAcceptedConnections() const {
    return query([&] { return maxAccepted_; });
}

void TcpSocket::setAcceptedIdleTimeout(double seconds) {
    runSync([&] { acceptedIdleTimeout_ = seconds; });
}

double TcpSocket::acceptedIdleTimeout() const {
    return query([&] { return acceptedIdleTimeout_; });
}

void TcpSocket::setMaxWriteQueueLength(std::size_t bytes) {
    maxWriteQueue_ = bytes;
}

std::size_t TcpSocket::maxWriteQueueLength() const {
    return maxWriteQueue_;
}

// ---------------------------------------------------------------------------------------------
// Descriptors, readiness sources and timers

bool TcpSocket::openSources(Descriptor& d, bool withWrite, TcpSocketError* error) {
    std::weak_ptr<TcpSocket> weak = weak_from_this();
    try {
        SuspendableSource readSource(
            ReadinessSource::create(d.fd, ReadinessSource::Kind::read, socketQueue_));
        SuspendableSource writeSource;
        if (withWrite) {
            writeSource = SuspendableSource(
                ReadinessSource::create(d.fd, ReadinessSource::Kind::write, socketQueue_));
        }
        d.readSource = std::move(readSource);
        d.writeSource = std::move(writeSource);
    } catch (const std::system_error& e) {
        ::close(d.fd);  // no sources yet to close it
        d.fd = -1;
        return fail(error, TcpSocketError(SocketError(SocketError::posixDomain, e.code().value(),
                                                      e.code().message(),
                                                      "Error creating dispatch source")));
    }
    const bool isListener = &d != &connection_;
    const bool isIPv4 = &d == &listener4_;
    d.readSource->setEventHandler([weak, isListener, isIPv4] {
        if (auto self = weak.lock()) {
            isListener ? self->onAcceptable(isIPv4) : self->onReadable();
        }
    });
    // Whichever source is cancelled last closes the descriptor, so neither outlives it.
    auto references = std::make_shared<int>(withWrite ? 2 : 1);
    auto cancelHandler = [references, fd = d.fd] {
        if (--*references == 0) {
            ::close(fd);
        }
    };
    d.readSource->setCancelHandler(cancelHandler);
    if (withWrite) {
        d.writeSource->setEventHandler([weak] {
            if (auto self = weak.lock()) {
                self->onWritable();
            }
        });
        d.writeSource->setCancelHandler(cancelHandler);
    }
    return true;
}

void TcpSocket::closeDescriptor(Descriptor& d) {
    if (d.fd == -1) {
        return;
    }
    d.readSource.cancel();
    d.writeSource.cancel();
    d.fd = -1;
}

// The sources follow what the work in progress waits for: an idle socket waits on nothing.
void TcpSocket::updateSources() {
    if (flags_ & kWaitsReadable) {
        connection_.readSource.resume();
    } else {
        connection_.readSource.suspend();
    }
    if (flags_ & kWaitsWritable) {
        connection_.writeSource.resume();
    } else {
        connection_.writeSource.suspend();
    }
}

void TcpSocket::armTimer(std::shared_ptr<TimerSource>& timer, double timeout,
                         std::function<void(TcpSocket&)> onFire) {
    if (timer || timeout < 0.0) {
        return;
    }
    timer = TimerSource::create(socketQueue_);
    timer->setEventHandler([weak = weak_from_this(), onFire = std::move(onFire)] {
        if (auto self = weak.lock()) {
            onFire(*self);
        }
    });
    timer->schedule(std::chrono::duration_cast<DispatchQueue::Clock::duration>(
        std::chrono::duration<double>(timeout)));
    timer->resume();
}

void TcpSocket::cancelTimer(std::shared_ptr<TimerSource>& timer) {
    if (timer) {
        timer->cancel();
        timer.reset();
    }
}

void TcpSocket::cacheAddresses(int fd) {
    sockaddr_in6 storage{};
    socklen_t length = sizeof storage;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&storage), &length) == 0) {
        localAddress_ = SocketAddress(&storage, std::min<std::size_t>(length, sizeof storage));
    }
    length = sizeof storage;
    if (::getpeername(fd, reinterpret_cast<sockaddr*>(&storage), &length) == 0) {
        connectedAddress_ = SocketAddress(&storage, std::min<std::size_t>(length, sizeof storage));
    }
}

// ---------------------------------------------------------------------------------------------
// Disconnecting

void TcpSocket::closeWithError(std::optional<TcpSocketError> error) {
    const bool wasOpen = (flags_ & (kConnecting | kConnected | kAccepting)) != 0;
    for (auto* timer : {&connectTimer_, &acceptRetryTimer_, &idleTimer_, &readTimer_, &writeTimer_,
                        &handshakeTimer_}) {
        cancelTimer(*timer);
    }
    if (tls_ && (flags_ & kSecure) && !error) {
        tls_->shutdown();  // an orderly close tells the peer so
    }
    tls_.reset();
    closeDescriptor(connection_);
    closeDescriptor(listener4_);
    closeDescriptor(listener6_);
    readQueue_.clear();
    currentRead_.reset();
    inbound_.clear();
    for (const auto& request : writeQueue_) {
        dropWrite(*request);
    }
    writeQueue_.clear();
    if (currentWrite_) {
        dropWrite(*currentWrite_);
        currentWrite_.reset();
    }
    // An accepted connection frees its place under the listener's cap.
    if (acceptedCount_ && !(flags_ & kAccepting)) {
        --*acceptedCount_;
    }
    acceptedCount_.reset();
    candidates_.clear();
    lastConnectError_.reset();
    ++attempt_;
    flags_ = 0;
    localAddress_ = {};
    connectedAddress_ = {};
    connectedHost_.clear();
    if (wasOpen) {
        notifyDelegate([error = std::move(error)](TcpSocketDelegate& d, TcpSocket& s) {
            d.socketDidDisconnect(s, error);
        });
    }
}

void TcpSocket::disconnect() {
    runSync([this] { closeWithError(std::nullopt); });
}

void TcpSocket::disconnectAfterReading() {
    post([this] {
        flags_ |= kDisconnectAfterReads;
        maybeDisconnectAfterIO();
    });
}

void TcpSocket::disconnectAfterWriting() {
    post([this] {
        flags_ |= kDisconnectAfterWrites;
        maybeDisconnectAfterIO();
    });
}

void TcpSocket::disconnectAfterReadingAndWriting() {
    post([this] {
        flags_ |= kDisconnectAfterReads | kDisconnectAfterWrites;
        maybeDisconnectAfterIO();
    });
}

void TcpSocket::maybeDisconnectAfterIO() {
    const std::uint32_t asked = flags_ & (kDisconnectAfterReads | kDisconnectAfterWrites);
    if (!asked || !(flags_ & (kConnecting | kConnected))) {
        return;
    }
    const bool readsDone = !(asked & kDisconnectAfterReads) || (!currentRead_ && readQueue_.empty());
    const bool writesDone =
        !(asked & kDisconnectAfterWrites) || (!currentWrite_ && writeQueue_.empty());
    if (readsDone && writesDone && (flags_ & kConnected)) {
        closeWithError(std::nullopt);
    }
}

// ---------------------------------------------------------------------------------------------
// Inspection

SocketAddress TcpSocket::localAddress() const {
    return query([&] { return localAddress_; });
}

std::string TcpSocket::localHost() const {
    return localAddress().host();
}

std::uint16_t TcpSocket::localPort() const {
    return localAddress().port();
}

SocketAddress TcpSocket::connectedAddress() const {
    return query([&] { return connectedAddress_; });
}

std::string TcpSocket::connectedHost() const {
    return connectedAddress().host();
}

std::uint16_t TcpSocket::connectedPort() const {
    return connectedAddress().port();
}

bool TcpSocket::isConnected() const {
    return query([&] { return (flags_ & kConnected) != 0; });
}

bool TcpSocket::isAccepting() const {
    return query([&] { return (flags_ & kAccepting) != 0; });
}

bool TcpSocket::isDisconnected() const {
    return query([&] { return (flags_ & (kConnecting | kConnected | kAccepting)) == 0; });
}

bool TcpSocket::isSecure() const {
    return query([&] { return (flags_ & kSecure) != 0; });
}

}  // namespace kavrin
