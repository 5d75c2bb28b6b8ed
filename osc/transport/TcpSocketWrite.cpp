#include <sys/socket.h>

#include <cerrno>

#include "osc/transport/TcpSocket.hpp"
#include "osc/transport/detail/Fail.hpp"
#include "osc/transport/detail/TcpSocketInternals.hpp"
#include "osc/transport/detail/TcpWriteRequest.hpp"
#include "osc/transport/detail/TlsSession.hpp"

// The write queue: writes one at a time, in the order given, each handed to the system as far
// as it takes it and finished when it turns writable again. queuedWriteBytes_ counts what waits,
// from write() until the bytes are written or dropped.

namespace kavrin {

using namespace tcpSocket;

bool TcpSocket::write(std::vector<std::uint8_t> data, double timeout, std::int64_t tag,
                      TcpSocketError* error) {
    const std::size_t size = data.size();
    const std::size_t before = queuedWriteBytes_.fetch_add(size);
    if (before != 0 && before + size > maxWriteQueue_) {
        queuedWriteBytes_ -= size;
        return fail(error, TcpSocketError::writeQueueFullError());
    }
    post([this, request = std::make_shared<TcpWriteRequest>(std::move(data), timeout, tag)] {
        if (!(flags_ & (kConnecting | kConnected)) || (flags_ & kWriteShutdownAsked)) {
            dropWrite(*request);
            return;
        }
        writeQueue_.push_back(request);
        continueWriting();
    });
    return true;
}

void TcpSocket::dropWrite(const TcpWriteRequest& request) {
    queuedWriteBytes_ -= request.data.size() - request.written;
}

void TcpSocket::shutdownWrite() {
    post([this] {
        if (flags_ & (kConnecting | kConnected)) {
            flags_ |= kWriteShutdownAsked;
            continueWriting();
        }
    });
}

void TcpSocket::onWritable() {
    if (flags_ & kConnectWaits) {
        finishConnect();
        return;
    }
    const bool readWaited = (flags_ & kReadWaitsWritable) != 0;
    flags_ &= ~(kWriteWaits | kReadWaitsWritable | kHandshakeWaitsWritable);
    if (flags_ & kHandshaking) {
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
    while (connection_.fd != -1 && (flags_ & kConnected) && !(flags_ & kHandshaking)) {
        if (!currentWrite_) {
            if (writeQueue_.empty()) {
                if ((flags_ & kWriteShutdownAsked) && !(flags_ & kWriteShut)) {
                    shutdownWriteNow();
                }
                maybeDisconnectAfterIO();
                break;
            }
            currentWrite_ = std::move(writeQueue_.front());
            writeQueue_.pop_front();
        }
        if (currentWrite_->tls) {
            maybeStartHandshake();
            break;
        }
        if (currentWrite_->written == currentWrite_->data.size()) {
            completeWrite();
            continue;
        }
        std::size_t written = 0;
        const Sent sent = sendSome(&written);
        if (sent == Sent::failed) {
            return;  // closed with the error
        }
        currentWrite_->written += written;
        queuedWriteBytes_ -= written;
        if (sent == Sent::wouldBlock) {
            TcpWriteRequest& request = *currentWrite_;
            if (request.written > request.reported) {
                notifyDelegate([length = request.written - request.reported, tag = request.tag](
                                   TcpSocketDelegate& d, TcpSocket& s) {
                    d.socketDidWritePartialDataOfLength(s, length, tag);
                });
                request.reported = request.written;
            }
            armTimer(writeTimer_, request.timeout,
                     [](TcpSocket& s) { s.closeWithError(TcpSocketError::writeTimeoutError()); });
            break;
        }
    }
    updateSources();
}

TcpSocket::Sent TcpSocket::sendSome(std::size_t* written) {
    const std::uint8_t* data = currentWrite_->data.data() + currentWrite_->written;
    const std::size_t size = currentWrite_->data.size() - currentWrite_->written;
    if (tls_) {
        TcpSocketError error;
        switch (tls_->write(data, size, written, &error)) {
            case TlsSession::Status::done:
                lastActivity_ = Clock::now();
                return Sent::some;
            case TlsSession::Status::wantRead:
                flags_ |= kWriteWaitsReadable;
                return Sent::wouldBlock;
            case TlsSession::Status::wantWrite:
                flags_ |= kWriteWaits;
                return Sent::wouldBlock;
            case TlsSession::Status::closed:
                closeWithError(TcpSocketError::closedByPeerError());
                return Sent::failed;
            case TlsSession::Status::failed:
                closeWithError(std::move(error));
                return Sent::failed;
        }
    }
    const ssize_t result = ::send(connection_.fd, data, size, MSG_NOSIGNAL);
    if (result > 0) {
        *written = static_cast<std::size_t>(result);
        lastActivity_ = Clock::now();
        return Sent::some;
    }
    if (result < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
        flags_ |= kWriteWaits;
        return Sent::wouldBlock;
    }
    closeWithError(TcpSocketError::errnoError("Error in send() function"));
    return Sent::failed;
}

void TcpSocket::completeWrite() {
    cancelTimer(writeTimer_);
    notifyDelegate([tag = currentWrite_->tag](TcpSocketDelegate& d, TcpSocket& s) {
        d.socketDidWriteDataWithTag(s, tag);
    });
    currentWrite_.reset();
}

void TcpSocket::shutdownWriteNow() {
    flags_ |= kWriteShut;
    if (tls_) {
        tls_->shutdown();
    }
    if (::shutdown(connection_.fd, SHUT_WR) != 0) {
        closeWithError(TcpSocketError::errnoError("Error in shutdown() function"));
    }
}

}  // namespace kavrin
