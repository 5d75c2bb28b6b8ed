#include <sys/socket.h>

#include <cerrno>

#include "osc/transport/TcpSocket.hpp"
#include "osc/transport/detail/Fail.hpp"
#include "osc/transport/detail/TcpReadRequest.hpp"
#include "osc/transport/detail/TcpSocketInternals.hpp"
#include "osc/transport/detail/TlsSession.hpp"

// The read queue: reads one at a time, in the order given. Bytes are received only while a read
// wants them, a chunk at a time, into the inbound buffer, from which each read takes what it
// asked for and no more; what is left waits for the next read.

namespace kavrin {

using namespace tcpSocket;

bool TcpSocket::readAvailable(std::size_t maxLength, double timeout, std::int64_t tag,
                              TcpSocketError* error) {
    if (maxLength == 0) {
        return fail(error, TcpSocketError::badParamError("The maximum length must be above 0."));
    }
    enqueueRead(std::make_shared<TcpReadRequest>(TcpReadRequest::Kind::available, maxLength,
                                                 std::vector<std::uint8_t>{}, timeout, tag));
    return true;
}

bool TcpSocket::readExactly(std::size_t length, double timeout, std::int64_t tag,
                            TcpSocketError* error) {
    if (length == 0) {
        return fail(error, TcpSocketError::badParamError("The length must be above 0."));
    }
    enqueueRead(std::make_shared<TcpReadRequest>(TcpReadRequest::Kind::exactly, length,
                                                 std::vector<std::uint8_t>{}, timeout, tag));
    return true;
}

bool TcpSocket::readToDelimiter(std::vector<std::uint8_t> delimiter, std::size_t maxLength,
                                double timeout, std::int64_t tag, TcpSocketError* error) {
    if (delimiter.empty()) {
        return fail(error, TcpSocketError::badParamError("The delimiter must not be empty."));
    }
    if (maxLength < delimiter.size()) {
        return fail(error, TcpSocketError::badParamError(
                               "The maximum length must hold at least the delimiter."));
    }
    enqueueRead(std::make_shared<TcpReadRequest>(TcpReadRequest::Kind::delimiter, maxLength,
                                                 std::move(delimiter), timeout, tag));
    return true;
}

void TcpSocket::enqueueRead(std::shared_ptr<TcpReadRequest> request) {
    d_->post([this, request = std::move(request)]() mutable {
        if (!(d_->flags_ & (kConnecting | kConnected))) {
            return;  // dropped, as documented
        }
        d_->readQueue_.push_back(std::move(request));
        continueReading();
    });
}

void TcpSocket::onReadable() {
    const bool writeWaited = (d_->flags_ & kWriteWaitsReadable) != 0;
    d_->flags_ &= ~(kReadWaits | kWriteWaitsReadable | kHandshakeWaitsReadable);
    if (d_->flags_ & kHandshaking) {
        continueHandshake();
        return;
    }
    if (writeWaited) {
        continueWriting();
    }
    continueReading();
}

// Serves reads until one must wait for the peer, or none is left.
void TcpSocket::continueReading() {
    while (d_->connection_.fd != -1 && (d_->flags_ & kConnected) && !(d_->flags_ & kHandshaking)) {
        if (!d_->currentRead_) {
            if (d_->readQueue_.empty()) {
                maybeDisconnectAfterIO();
                break;
            }
            d_->currentRead_ = std::move(d_->readQueue_.front());
            d_->readQueue_.pop_front();
        }
        if (d_->currentRead_->kind == TcpReadRequest::Kind::startTLS) {
            maybeStartHandshake();
            break;
        }
        std::size_t added = 0;
        const auto progress = d_->currentRead_->take(d_->inbound_, &added);
        if (progress == TcpReadRequest::Progress::done) {
            completeRead();
            continue;
        }
        if (progress == TcpReadRequest::Progress::maxedOut) {
            closeWithError(TcpSocketError::readMaxedOutError());
            return;
        }
        if (added > 0) {
            d_->notifyDelegate([added, tag = d_->currentRead_->tag](TcpSocketDelegate& d, TcpSocket& s) {
                d.socketDidReadPartialDataOfLength(s, added, tag);
            });
        }
        if (d_->flags_ & kEndOfStream) {
            closeWithError(TcpSocketError::closedByPeerError());
            return;
        }
        const Received received = receiveChunk();
        if (received == Received::failed) {
            return;  // closed with the error
        }
        if (received == Received::endOfStream) {
            d_->flags_ |= kEndOfStream;
        } else if (received == Received::wouldBlock) {
            armTimer(d_->readTimer_, d_->currentRead_->timeout,
                     [](TcpSocket& s) { s.closeWithError(TcpSocketError::readTimeoutError()); });
            break;
        }
    }
    updateSources();
}

TcpSocket::Received TcpSocket::receiveChunk() {
    std::uint8_t* space = d_->inbound_.prepare(readChunkLength);
    std::size_t count = 0;
    if (d_->tls_) {
        TcpSocketError error;
        const auto status = d_->tls_->read(space, readChunkLength, &count, &error);
        d_->inbound_.commit(status == TlsSession::Status::done ? count : 0);
        switch (status) {
            case TlsSession::Status::done:
                d_->lastActivity_ = State::Clock::now();
                return Received::data;
            case TlsSession::Status::wantRead:
                d_->flags_ |= kReadWaits;
                return Received::wouldBlock;
            case TlsSession::Status::wantWrite:
                d_->flags_ |= kReadWaitsWritable;
                return Received::wouldBlock;
            case TlsSession::Status::closed:
                return Received::endOfStream;
            case TlsSession::Status::failed:
                closeWithError(std::move(error));
                return Received::failed;
        }
    }
    const ssize_t result = ::recv(d_->connection_.fd, space, readChunkLength, 0);
    const int receiveErrno = errno;
    d_->inbound_.commit(result > 0 ? static_cast<std::size_t>(result) : 0);
    if (result > 0) {
        d_->lastActivity_ = State::Clock::now();
        return Received::data;
    }
    if (result == 0) {
        return Received::endOfStream;
    }
    if (receiveErrno == EAGAIN || receiveErrno == EWOULDBLOCK || receiveErrno == EINTR) {
        d_->flags_ |= kReadWaits;
        return Received::wouldBlock;
    }
    errno = receiveErrno;
    closeWithError(TcpSocketError::errnoError("Error in recv() function"));
    return Received::failed;
}

void TcpSocket::completeRead() {
    cancelTimer(d_->readTimer_);
    d_->notifyDelegate([data = std::move(d_->currentRead_->buffer), tag = d_->currentRead_->tag](
                       TcpSocketDelegate& d, TcpSocket& s) mutable {
        d.socketDidReadData(s, std::move(data), tag);
    });
    d_->currentRead_.reset();
}

}  // namespace kavrin
