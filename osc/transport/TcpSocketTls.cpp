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
    return query([&] {
        if (!(flags_ & (kConnecting | kConnected))) {
            return fail(error, TcpSocketError::badConfigError(
                                   "Cannot start TLS on a socket that is not connected."));
        }
        if (flags_ & kStartedTLS) {
            return fail(error, TcpSocketError::badConfigError("TLS was already started."));
        }
        flags_ |= kStartedTLS;
        // Queued in turn behind the reads and writes posted before this call.
        post([this, session] {
            if (!(flags_ & (kConnecting | kConnected))) {
                return;
            }
            readQueue_.push_back(std::make_shared<TcpReadRequest>(session));
            writeQueue_.push_back(std::make_shared<TcpWriteRequest>(session));
            continueReading();
            continueWriting();
        });
        return true;
    });
}

void TcpSocket::maybeStartHandshake() {
    if (!currentRead_ || !currentWrite_ || !currentRead_->tls ||
        currentRead_->tls != currentWrite_->tls || (flags_ & kHandshaking)) {
        return;  // the other queue has not reached the mark yet
    }
    tls_ = currentRead_->tls;
    flags_ |= kHandshaking;
    armTimer(handshakeTimer_, tls_->handshakeTimeout(),
             [](TcpSocket& s) { s.closeWithError(TcpSocketError::handshakeTimeoutError()); });
    // The peer may have sent its first handshake bytes behind the last plain ones, and they may
    // already be in the inbound buffer.
    TcpSocketError error;
    if (!tls_->attach(connection_.fd, inbound_.takeAll(), connectedHost_, &error)) {
        closeWithError(std::move(error));
        return;
    }
    continueHandshake();
}

void TcpSocket::continueHandshake() {
    TcpSocketError error;
    switch (tls_->handshake(&error)) {
        case TlsSession::Status::done:
            cancelTimer(handshakeTimer_);
            flags_ = (flags_ & ~kHandshaking) | kSecure;
            lastActivity_ = Clock::now();
            currentRead_.reset();
            currentWrite_.reset();
            notifyDelegate([](TcpSocketDelegate& d, TcpSocket& s) { d.socketDidSecure(s); });
            continueReading();
            continueWriting();
            return;
        case TlsSession::Status::wantRead:
            flags_ |= kHandshakeWaitsReadable;
            lastActivity_ = Clock::now();
            break;
        case TlsSession::Status::wantWrite:
            flags_ |= kHandshakeWaitsWritable;
            lastActivity_ = Clock::now();
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
