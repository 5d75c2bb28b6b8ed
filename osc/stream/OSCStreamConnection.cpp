#include "osc/stream/OSCStreamConnection.hpp"

#include "osc/stream/detail/OSCStreamReceiver.hpp"

namespace kavrin {

std::atomic<std::uint64_t> OSCStreamConnection::nextID_{1};

namespace {

std::optional<TlsSettings> sideOf(std::optional<TlsSettings> tls, bool isServer) {
    if (tls) tls->isServer = isServer;
    return tls;
}

}  // namespace

OSCStreamConnection::OSCStreamConnection(Private, std::weak_ptr<OSCStreamReceiver> receiver,
                                         const OSCStreamSettings& settings, bool isServer)
    : receiver_(std::move(receiver)),
      framing_(settings.framing),
      maximumFrame_(settings.maximumFrame),
      frameTimeout_(settings.frameTimeout),
      writeTimeout_(settings.writeTimeout),
      textPolicy_(settings.textPolicy),
      tls_(sideOf(settings.tls, isServer)),
      id_(nextID_++),
      deframer_(settings.framing, settings.maximumFrame) {
    backlog_->setLimit(settings.maxReceiveBacklog);
}

std::shared_ptr<OSCStreamConnection> OSCStreamConnection::make(
    std::weak_ptr<OSCStreamReceiver> receiver, const OSCStreamSettings& settings, bool isServer) {
    auto connection = std::make_shared<OSCStreamConnection>(Private{}, std::move(receiver),
                                                            settings, isServer);
    connection->backlog_->setOnRoom([weak = std::weak_ptr(connection)] {
        const auto self = weak.lock();
        const auto receiver = self ? self->receiver_.lock() : nullptr;
        if (!receiver) return;
        receiver->receiveQueue()->async([self] {
            if (!self->closed_ && !self->failure_) self->readNext();
        });
    });
    return connection;
}

std::weak_ptr<TcpSocketDelegate> OSCStreamConnection::asDelegate() {
    // The base is private: the conversion is made here, where it is accessible.
    return std::shared_ptr<TcpSocketDelegate>(shared_from_this(),
                                              static_cast<TcpSocketDelegate*>(this));
}

bool OSCStreamConnection::send(const OSCPacket& packet, TcpSocketError* error) {
    std::vector<std::uint8_t> framed;
    try {
        framed = framePacket(framing_, packet, maximumFrame_, textPolicy_);
    } catch (const OSCFramingError& tooLong) {
        if (error) *error = TcpSocketError::badParamError(tooLong.what());
        return false;
    }
    return sendFramed(std::move(framed), error);
}

bool OSCStreamConnection::sendFramed(std::vector<std::uint8_t> framed, TcpSocketError* error) {
    if (closed_.load()) {
        if (error) *error = TcpSocketError::badConfigError("The connection is closed.");
        return false;
    }
    return socket_->write(std::move(framed), writeTimeout_, 0, error);
}

void OSCStreamConnection::close() {
    socket_->disconnectAfterWriting();
}

void OSCStreamConnection::begin() {
    peer_ = socket_->connectedAddress();
    local_ = socket_->localAddress();
    if (tls_) {
        TcpSocketError error;
        if (!socket_->startTLS(*tls_, &error)) {
            fail(std::move(error));
            return;
        }
    } else {
        opened();
    }
    readNext();  // waits for the handshake, if any
}

void OSCStreamConnection::socketDidConnect(TcpSocket&, const std::string&, std::uint16_t) {
    begin();
}

void OSCStreamConnection::socketDidSecure(TcpSocket&) {
    secure_ = true;
    opened();
}

void OSCStreamConnection::opened() {
    wasOpened_ = true;
    if (auto receiver = receiver_.lock()) receiver->opened(shared_from_this());
}

// Between packets a read waits as long as the peer likes (the listener's idle time-out ends a
// connection that rests too long); within one, only the frame time-out.
void OSCStreamConnection::readNext() {
    const double timeout = deframer_.isMidFrame() ? frameTimeout_ : -1.0;
    socket_->readAvailable(TcpSocket::readChunkLength, timeout, 0);
}

void OSCStreamConnection::socketDidReadData(TcpSocket&, std::vector<std::uint8_t> data,
                                            std::int64_t) {
    auto receiver = receiver_.lock();
    if (!receiver || failure_) return;
    const auto self = shared_from_this();
    // Decoded, small packets take several times their bytes.
    receiver->setReadHold(backlog_->admit(8 * data.size()));
    try {
        deframer_.feed(
            data, [&](std::span<const std::uint8_t> packet) { receiver->receive(packet, self); });
    } catch (const OSCFramingError& broken) {
        receiver->flush();
        receiver->setReadHold(nullptr);
        fail(TcpSocketError(oscStreamErrorDomain, oscStreamFramingError, broken.what()));
        return;
    }
    receiver->flush();
    receiver->setReadHold(nullptr);
    if (!backlog_->full()) readNext();  // else the room, once made, reads on
}

void OSCStreamConnection::fail(TcpSocketError error) {
    failure_ = std::move(error);
    socket_->disconnect();  // reported by socketDidDisconnect, with the failure
}

void OSCStreamConnection::socketDidDisconnect(TcpSocket&,
                                              const std::optional<TcpSocketError>& error) {
    closed_ = true;
    // A peer that closes between packets has closed in order; within one, or before the
    // connection was up (during its TLS handshake), it cut it short.
    const bool orderly = error && error->domain() == TcpSocketError::socketDomain &&
                         error->code() == TcpSocketError::closedByPeer && wasOpened_ &&
                         !deframer_.isMidFrame();
    if (auto receiver = receiver_.lock()) {
        receiver->closed(shared_from_this(),
                         orderly ? std::nullopt
                         : error ? error
                                 : failure_,
                         wasOpened_);
    }
}

}  // namespace kavrin
