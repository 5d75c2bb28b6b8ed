#include <sys/socket.h>

#include <cerrno>

#include "osc/transport/TcpSocket.hpp"
#include "osc/transport/detail/Fail.hpp"
#include "osc/transport/detail/TcpSocketInternals.hpp"
#include "osc/transport/detail/TcpWriteRequest.hpp"
#include "osc/transport/detail/TlsSession.hpp"

// The write queue: writes one at a time, in the order given, each handed to the system as far
// as it takes it and finished when it turns writable again. d_->queuedWriteBytes_ counts what waits,
// from write() until the bytes are written or dropped.

namespace kavrin {

using namespace tcpSocket;

bool TcpSocket::write(std::vector<std::uint8_t> data, double timeout, std::int64_t tag,
                      TcpSocketError* error) {
    const std::size_t size = data.size();
    const std::size_t before = d_->queuedWriteBytes_.fetch_add(size);
    if (before != 0 && before + size > d_->maxWriteQueue_) {
        d_->queuedWriteBytes_ -= size;
        return fail(error, TcpSocketError::writeQueueFullError());
    }
    d_->post([this, request = std::make_shared<TcpWriteRequest>(std::move(data), timeout, tag)] {
        if (!(d_->flags_ & (kConnecting | kConnected)) || (d_->flags_ & kWriteShutdownAsked)) {
            dropWrite(*request);
            return;
        }
        d_->writeQueue_.push_back(request);
        continueWriting();
    });
    return true;
}

void TcpSocket::dropWrite(const TcpWriteRequest& request) {
    d_->queuedWriteBytes_ -= request.data.size() - request.written;
}

void TcpSocket::shutdownWrite() {
    d_->post([this] {
        if (d_->flags_ & (kConnecting | kConnected)) {
            d_->flags_ |= kWriteShutdownAsked;
            continueWriting();
        }
    });
}

void TcpSocket::onWritable() {
    if (d_->flags_ & kConnectWaits) {
        finishConnect();
        return;
    }
    const bool readWaited = (d_->flags_ & kReadWaitsWritable) != 0;
    d_->flags_ &= ~(kWriteWaits | kReadWaitsWritable | kHandshakeWaitsWritable);
    if (d_->flags_ & kHandshaking) {
        continueHandshake();
        return;
    }
    if (readWaited) {
        continueReading();
    }
    continueWriting();
}

// Serves writes until one must wait for the system to take more, or none is left.
void TcpSocket::continueWriting() {
    while (d_->connection_.fd != -1 && (d_->flags_ & kConnected) && !(d_->flags_ & kHandshaking)) {
        if (!d_->currentWrite_) {
            if (d_->writeQueue_.empty()) {
                if ((d_->flags_ & kWriteShutdownAsked) && !(d_->flags_ & kWriteShut)) {
                    shutdownWriteNow();
                }
                maybeDisconnectAfterIO();
                break;
            }
            d_->currentWrite_ = std::move(d_->writeQueue_.front());
            d_->writeQueue_.pop_front();
        }
        if (d_->currentWrite_->tls) {
            maybeStartHandshake();
            break;
        }
        if (d_->currentWrite_->written == d_->currentWrite_->data.size()) {
            completeWrite();
            continue;
        }
        std::size_t written = 0;
        const Sent sent = sendSome(&written);
        if (sent == Sent::failed) {
            return;  // closed with the error
        }
        d_->currentWrite_->written += written;
        d_->queuedWriteBytes_ -= written;
        if (sent == Sent::wouldBlock) {
            TcpWriteRequest& request = *d_->currentWrite_;
            if (request.written > request.reported) {
                d_->notifyDelegate([length = request.written - request.reported, tag = request.tag](
                                   TcpSocketDelegate& d, TcpSocket& s) {
                    d.socketDidWritePartialDataOfLength(s, length, tag);
                });
                request.reported = request.written;
            }
            armTimer(d_->writeTimer_, request.timeout,
                     [](TcpSocket& s) { s.closeWithError(TcpSocketError::writeTimeoutError()); });
            break;
        }
    }
    updateSources();
}

TcpSocket::Sent TcpSocket::sendSome(std::size_t* written) {
    const std::uint8_t* data = d_->currentWrite_->data.data() + d_->currentWrite_->written;
    const std::size_t size = d_->currentWrite_->data.size() - d_->currentWrite_->written;
    if (d_->tls_) {
        TcpSocketError error;
        switch (d_->tls_->write(data, size, written, &error)) {
            case TlsSession::Status::done:
                d_->lastActivity_ = State::Clock::now();
                return Sent::some;
            case TlsSession::Status::wantRead:
                d_->flags_ |= kWriteWaitsReadable;
                return Sent::wouldBlock;
            case TlsSession::Status::wantWrite:
                d_->flags_ |= kWriteWaits;
                return Sent::wouldBlock;
            case TlsSession::Status::closed:
                closeWithError(TcpSocketError::closedByPeerError());
                return Sent::failed;
            case TlsSession::Status::failed:
                closeWithError(std::move(error));
                return Sent::failed;
        }
    }
    const ssize_t result = ::send(d_->connection_.fd, data, size, MSG_NOSIGNAL);
    if (result > 0) {
        *written = static_cast<std::size_t>(result);
        d_->lastActivity_ = State::Clock::now();
        return Sent::some;
    }
    if (result < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
        d_->flags_ |= kWriteWaits;
        return Sent::wouldBlock;
    }
    closeWithError(TcpSocketError::errnoError("Error in send() function"));
    return Sent::failed;
}

void TcpSocket::completeWrite() {
    cancelTimer(d_->writeTimer_);
    d_->notifyDelegate([tag = d_->currentWrite_->tag](TcpSocketDelegate& d, TcpSocket& s) {
        d.socketDidWriteDataWithTag(s, tag);
    });
    d_->currentWrite_.reset();
}

void TcpSocket::shutdownWriteNow() {
    d_->flags_ |= kWriteShut;
    if (d_->tls_) {
        d_->tls_->shutdown();
    }
    if (::shutdown(d_->connection_.fd, SHUT_WR) != 0) {
        closeWithError(TcpSocketError::errnoError("Error in shutdown() function"));
    }
}

}  // namespace kavrin
