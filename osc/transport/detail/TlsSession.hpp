#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "osc/transport/TcpSocketError.hpp"
#include "osc/transport/TlsSettings.hpp"

namespace kavrin {

/// One TLS connection over a non-blocking descriptor, with OpenSSL. Each step says what it
/// needs to go on: the descriptor readable or writable (either may be needed by a read or a
/// write: a handshake message or a key update can come at any time). The descriptor is written
/// with MSG_NOSIGNAL, so a peer that vanishes never raises SIGPIPE.
///
/// Touched only on its socket's queue: OpenSSL's error queue is per thread, so every step reads
/// the errors of its own calls only. Internal to TcpSocket.
class TlsSession {
  public:
    enum class Status { done, wantRead, wantWrite, closed, failed };

    /// Loads the files of settings; null with a tls error saying which one could not be.
    static std::shared_ptr<TlsSession> create(const TlsSettings& settings, TcpSocketError* error);
    ~TlsSession();
    TlsSession(const TlsSession&) = delete;
    TlsSession& operator=(const TlsSession&) = delete;

    /// Binds the session to the connected fd. received: bytes already read from it, which the
    /// handshake reads first. peerName is checked (and sent as SNI) unless settings name one.
    bool attach(int fd, std::vector<std::uint8_t> received, const std::string& peerName,
                TcpSocketError* error);

    Status handshake(TcpSocketError* error);
    double handshakeTimeout() const;
    /// done with *count > 0 bytes read; closed at the peer's close_notify or end of stream.
    Status read(std::uint8_t* buffer, std::size_t capacity, std::size_t* count,
                TcpSocketError* error);
    /// done with *count > 0 bytes taken.
    Status write(const std::uint8_t* data, std::size_t size, std::size_t* count,
                 TcpSocketError* error);
    /// Sends close_notify, as far as the descriptor takes it now.
    void shutdown();

    struct Impl;  // public for the descriptor glue in the source file

  private:
    explicit TlsSession(std::unique_ptr<Impl> impl);
    Status outcome(int result, TcpSocketError* error);

    std::unique_ptr<Impl> impl_;
};

}  // namespace kavrin
