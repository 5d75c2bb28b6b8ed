#include "osc/transport/TcpSocket.hpp"
#include "osc/transport/detail/Fail.hpp"
#include "osc/transport/detail/TcpReadRequest.hpp"
#include "osc/transport/detail/TcpSocketInternals.hpp"
#include "osc/transport/detail/TcpWriteRequest.hpp"
#include "osc/transport/detail/TlsSession.hpp"

// Starting TLS: a mark goes into both queues, and the handshake runs once both queues have
// reached it, so that it begins exactly between the plain bytes before it and the secured ones
// after.

namespace kavrin {

using namespace tcpSocket;

bool TcpSocket::startTLS(const TlsSettings& settings, TcpSocketError* error) {
    auto session = TlsSession::create(settings, error);
    if (!session) {
        return false;
    }
    return d_->query([&] {
        if (!(d_->flags_ & (kConnecting | kConnected))) {
            return fail(error, TcpSocketError::badConfigError(
                                   "Cannot start TLS on a socket that is not connected."));
        }
        if (d_->flags_ & kStartedTLS) {
            return fail(error, TcpSocketError::badConfigError("TLS was already started."));
        }
        d_->flags_ |= kStartedTLS;
        // Queued in turn behind the reads and writes posted before this call.
        d_->post([this, session] {
            if (!(d_->flags_ & (kConnecting | kConnected))) {
                return;
            }
            d_->readQueue_.push_back(std::make_shared<TcpReadRequest>(session));
            d_->writeQueue_.push_back(std::make_shared<TcpWriteRequest>(session));
            continueReading();
            continueWriting();
        });
        return true;
    });
}

void TcpSocket::maybeStartHandshake() {
    if (!d_->currentRead_ || !d_->currentWrite_ || !d_->currentRead_->tls ||
        d_->currentRead_->tls != d_->currentWrite_->tls || (d_->flags_ & kHandshaking)) {
        return;  // the other queue has not reached the mark yet
    }
    d_->tls_ = d_->currentRead_->tls;
    d_->flags_ |= kHandshaking;
    armTimer(d_->handshakeTimer_, d_->tls_->handshakeTimeout(),
             [](TcpSocket& s) { s.closeWithError(TcpSocketError::handshakeTimeoutError()); });
    // The peer may have sent its first handshake bytes behind the last plain ones, and they may
    // already be in the inbound buffer.
    TcpSocketError error;
    if (!d_->tls_->attach(d_->connection_.fd, d_->inbound_.takeAll(), d_->connectedHost_, &error)) {
        closeWithError(std::move(error));
        return;
    }
    continueHandshake();
}

void TcpSocket::continueHandshake() {
    TcpSocketError error;
    switch (d_->tls_->handshake(&error)) {
        case TlsSession::Status::done:
            cancelTimer(d_->handshakeTimer_);
            d_->flags_ = (d_->flags_ & ~kHandshaking) | kSecure;
            d_->lastActivity_ = State::Clock::now();
            d_->currentRead_.reset();
            d_->currentWrite_.reset();
            d_->notifyDelegate([](TcpSocketDelegate& d, TcpSocket& s) { d.socketDidSecure(s); });
            continueReading();
            continueWriting();
            return;
        case TlsSession::Status::wantRead:
            d_->flags_ |= kHandshakeWaitsReadable;
            d_->lastActivity_ = State::Clock::now();
            break;
        case TlsSession::Status::wantWrite:
            d_->flags_ |= kHandshakeWaitsWritable;
            d_->lastActivity_ = State::Clock::now();
            break;
        case TlsSession::Status::closed:
            closeWithError(TcpSocketError::closedByPeerError());
            return;
        case TlsSession::Status::failed:
            closeWithError(std::move(error));
            return;
    }
    updateSources();
}

}  // namespace kavrin
