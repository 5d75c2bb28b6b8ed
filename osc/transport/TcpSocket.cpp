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
    : d_(std::make_unique<State>(*this, std::move(delegate), std::move(delegateQueue),
                                 std::move(socketQueue))) {}

TcpSocket::~TcpSocket() {
    d_->runSync([this] {
        closeWithError(std::nullopt);
        d_->leaveQueue();
    });
}

// ---------------------------------------------------------------------------------------------
// Queue helpers

bool TcpSocket::startCheck(TcpSocketError* error) const {
    if (!d_->preCheck(error)) {
        return false;
    }
    if (d_->flags_ & (kConnecting | kConnected | kAccepting)) {
        return fail(error, TcpSocketError::badConfigError(
                               "Attempting to connect or accept while connected or accepting. "
                               "Disconnect first."));
    }
    return true;
}

// ---------------------------------------------------------------------------------------------
// Delegate

std::weak_ptr<TcpSocketDelegate> TcpSocket::delegate() const {
    return d_->query([&] { return d_->delegate_; });
}

std::shared_ptr<DispatchQueue> TcpSocket::delegateQueue() const {
    return d_->query([&] { return d_->delegateQueue_; });
}

void TcpSocket::setDelegate(std::weak_ptr<TcpSocketDelegate> delegate,
                            std::shared_ptr<DispatchQueue> delegateQueue) {
    d_->runSoon([this, delegate = std::move(delegate), queue = std::move(delegateQueue)] {
        d_->delegate_ = delegate;
        d_->delegateQueue_ = queue;
    });
}

void TcpSocket::synchronouslySetDelegate(std::weak_ptr<TcpSocketDelegate> delegate,
                                         std::shared_ptr<DispatchQueue> delegateQueue) {
    d_->runSync([&] {
        d_->delegate_ = std::move(delegate);
        d_->delegateQueue_ = std::move(delegateQueue);
    });
}

// ---------------------------------------------------------------------------------------------
// Options

bool TcpSocket::setNoDelay(bool flag, TcpSocketError* error) {
    return d_->query([&] {
        d_->noDelay_ = flag;
        return d_->connection_.fd == -1 || applyOptions(d_->connection_.fd, error);
    });
}

bool TcpSocket::setKeepAlive(bool flag, TcpSocketError* error) {
    return d_->query([&] {
        d_->keepAlive_ = flag;
        return d_->connection_.fd == -1 || applyOptions(d_->connection_.fd, error);
    });
}

bool TcpSocket::applyOptions(int fd, TcpSocketError* error) const {
    const int noDelay = d_->noDelay_ ? 1 : 0;
    if (::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay) != 0) {
        return fail(error, TcpSocketError::errnoError("Error setting TCP_NODELAY (setsockopt)"));
    }
    const int keepAlive = d_->keepAlive_ ? 1 : 0;
    if (::setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &keepAlive, sizeof keepAlive) != 0) {
        return fail(error, TcpSocketError::errnoError("Error setting SO_KEEPALIVE (setsockopt)"));
    }
    return true;
}

void TcpSocket::setMaxAcceptedConnections(std::size_t count) {
    d_->runSync([&] { d_->maxAccepted_ = count; });
}

std::size_t TcpSocket::maxAcceptedConnections() const {
    return d_->query([&] { return d_->maxAccepted_; });
}

void TcpSocket::setAcceptedIdleTimeout(double seconds) {
    d_->runSync([&] { d_->acceptedIdleTimeout_ = seconds; });
}

double TcpSocket::acceptedIdleTimeout() const {
    return d_->query([&] { return d_->acceptedIdleTimeout_; });
}

void TcpSocket::setMaxWriteQueueLength(std::size_t bytes) {
    d_->maxWriteQueue_ = bytes;
}

std::size_t TcpSocket::maxWriteQueueLength() const {
    return d_->maxWriteQueue_;
}

// ---------------------------------------------------------------------------------------------
// Descriptors, readiness sources and timers

bool TcpSocket::openSources(Descriptor& d, bool withWrite, TcpSocketError* error) {
    std::weak_ptr<TcpSocket> weak = weak_from_this();
    try {
        SuspendableSource readSource(
            ReadinessSource::create(d.fd, ReadinessSource::Kind::read, d_->socketQueue_));
        SuspendableSource writeSource;
        if (withWrite) {
            writeSource = SuspendableSource(
                ReadinessSource::create(d.fd, ReadinessSource::Kind::write, d_->socketQueue_));
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
    const bool isListener = &d != &d_->connection_;
    const bool isIPv4 = &d == &d_->listener4_;
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
    if (d_->flags_ & kWaitsReadable) {
        d_->connection_.readSource.resume();
    } else {
        d_->connection_.readSource.suspend();
    }
    if (d_->flags_ & kWaitsWritable) {
        d_->connection_.writeSource.resume();
    } else {
        d_->connection_.writeSource.suspend();
    }
}

void TcpSocket::armTimer(std::shared_ptr<TimerSource>& timer, double timeout,
                         std::function<void(TcpSocket&)> onFire) {
    if (timer || timeout < 0.0) {
        return;
    }
    timer = TimerSource::create(d_->socketQueue_);
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
        d_->localAddress_ = SocketAddress(&storage, std::min<std::size_t>(length, sizeof storage));
    }
    length = sizeof storage;
    if (::getpeername(fd, reinterpret_cast<sockaddr*>(&storage), &length) == 0) {
        d_->connectedAddress_ = SocketAddress(&storage, std::min<std::size_t>(length, sizeof storage));
    }
}

// ---------------------------------------------------------------------------------------------
// Disconnecting

void TcpSocket::closeWithError(std::optional<TcpSocketError> error) {
    const bool wasOpen = (d_->flags_ & (kConnecting | kConnected | kAccepting)) != 0;
    for (auto* timer : {&d_->connectTimer_, &d_->acceptRetryTimer_, &d_->idleTimer_, &d_->readTimer_, &d_->writeTimer_,
                        &d_->handshakeTimer_}) {
        cancelTimer(*timer);
    }
    if (d_->tls_ && (d_->flags_ & kSecure) && !error) {
        d_->tls_->shutdown();  // an orderly close tells the peer so
    }
    d_->tls_.reset();
    closeDescriptor(d_->connection_);
    closeDescriptor(d_->listener4_);
    closeDescriptor(d_->listener6_);
    d_->readQueue_.clear();
    d_->currentRead_.reset();
    d_->inbound_.clear();
    for (const auto& request : d_->writeQueue_) {
        dropWrite(*request);
    }
    d_->writeQueue_.clear();
    if (d_->currentWrite_) {
        dropWrite(*d_->currentWrite_);
        d_->currentWrite_.reset();
    }
    // An accepted connection frees its place under the listener's cap.
    if (d_->acceptedCount_ && !(d_->flags_ & kAccepting)) {
        --*d_->acceptedCount_;
    }
    d_->acceptedCount_.reset();
    d_->candidates_.clear();
    d_->lastConnectError_.reset();
    ++d_->attempt_;
    d_->flags_ = 0;
    d_->localAddress_ = {};
    d_->connectedAddress_ = {};
    d_->connectedHost_.clear();
    if (wasOpen) {
        d_->notifyDelegate([error = std::move(error)](TcpSocketDelegate& d, TcpSocket& s) {
            d.socketDidDisconnect(s, error);
        });
    }
}

void TcpSocket::disconnect() {
    d_->runSync([this] { closeWithError(std::nullopt); });
}

void TcpSocket::disconnectAfterReading() {
    d_->post([this] {
        d_->flags_ |= kDisconnectAfterReads;
        maybeDisconnectAfterIO();
    });
}

void TcpSocket::disconnectAfterWriting() {
    d_->post([this] {
        d_->flags_ |= kDisconnectAfterWrites;
        maybeDisconnectAfterIO();
    });
}

void TcpSocket::disconnectAfterReadingAndWriting() {
    d_->post([this] {
        d_->flags_ |= kDisconnectAfterReads | kDisconnectAfterWrites;
        maybeDisconnectAfterIO();
    });
}

void TcpSocket::maybeDisconnectAfterIO() {
    const std::uint32_t asked = d_->flags_ & (kDisconnectAfterReads | kDisconnectAfterWrites);
    if (!asked || !(d_->flags_ & (kConnecting | kConnected))) {
        return;
    }
    const bool readsDone = !(asked & kDisconnectAfterReads) || (!d_->currentRead_ && d_->readQueue_.empty());
    const bool writesDone =
        !(asked & kDisconnectAfterWrites) || (!d_->currentWrite_ && d_->writeQueue_.empty());
    if (readsDone && writesDone && (d_->flags_ & kConnected)) {
        closeWithError(std::nullopt);
    }
}

// ---------------------------------------------------------------------------------------------
// Inspection

SocketAddress TcpSocket::localAddress() const {
    return d_->query([&] { return d_->localAddress_; });
}

std::string TcpSocket::localHost() const {
    return localAddress().host();
}

std::uint16_t TcpSocket::localPort() const {
    return localAddress().port();
}

SocketAddress TcpSocket::connectedAddress() const {
    return d_->query([&] { return d_->connectedAddress_; });
}

std::string TcpSocket::connectedHost() const {
    return connectedAddress().host();
}

std::uint16_t TcpSocket::connectedPort() const {
    return connectedAddress().port();
}

bool TcpSocket::isConnected() const {
    return d_->query([&] { return (d_->flags_ & kConnected) != 0; });
}

bool TcpSocket::isAccepting() const {
    return d_->query([&] { return (d_->flags_ & kAccepting) != 0; });
}

bool TcpSocket::isDisconnected() const {
    return d_->query([&] { return (d_->flags_ & (kConnecting | kConnected | kAccepting)) == 0; });
}

bool TcpSocket::isSecure() const {
    return d_->query([&] { return (d_->flags_ & kSecure) != 0; });
}

}  // namespace kavrin
