#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "osc/transport/SocketAddress.hpp"
#include "osc/transport/TcpSocketError.hpp"
#include "osc/transport/TlsSettings.hpp"

namespace kavrin {

class DispatchQueue;
class SerialQueue;
class TimerSource;
class TcpSocket;
class TcpReadRequest;
class TcpWriteRequest;
class TlsSession;

/// Receives a TcpSocket's reports. Every operation is optional (the defaults do nothing) and is
/// always called asynchronously on the socket's delegate queue, never from inside a socket call.
/// The socket holds its delegate weakly.
class TcpSocketDelegate {
  public:
    /// Where an accepted connection lives; see socketWillAccept.
    struct AcceptedConnection {
        std::weak_ptr<TcpSocketDelegate> delegate;
        std::shared_ptr<DispatchQueue> delegateQueue;
        std::shared_ptr<SerialQueue> socketQueue;  ///< null: a queue of its own
    };

    virtual ~TcpSocketDelegate() = default;

    /// host is as given to connectToHost, or the numeric host of the address connected to.
    virtual void socketDidConnect(TcpSocket& /*sock*/, const std::string& /*host*/,
                                  std::uint16_t /*port*/) {}
    /// Called just before socketDidAccept, on the listener's delegate queue: setup starts as the
    /// listener's delegate and delegate queue and no socket queue; change it to give the
    /// connection others.
    virtual void socketWillAccept(TcpSocket& /*listener*/, const SocketAddress& /*peer*/,
                                  AcceptedConnection& /*setup*/) {}
    /// newSocket is connected and reports nothing until it is read from, written to or closed
    /// (or idles out). Keep it: dropping the last reference closes the connection.
    virtual void socketDidAccept(TcpSocket& /*listener*/, std::shared_ptr<TcpSocket> /*newSocket*/) {}
    /// data is what the read asked for, handed over (the receiver owns it).
    virtual void socketDidReadData(TcpSocket& /*sock*/, std::vector<std::uint8_t> /*data*/,
                                   std::int64_t /*tag*/) {}
    /// A read to a length or a delimiter has taken length more bytes and still waits for more.
    virtual void socketDidReadPartialDataOfLength(TcpSocket& /*sock*/, std::size_t /*length*/,
                                                  std::int64_t /*tag*/) {}
    virtual void socketDidWriteDataWithTag(TcpSocket& /*sock*/, std::int64_t /*tag*/) {}
    /// A write has handed length more bytes to the system and must wait to hand over the rest.
    virtual void socketDidWritePartialDataOfLength(TcpSocket& /*sock*/, std::size_t /*length*/,
                                                   std::int64_t /*tag*/) {}
    /// The TLS handshake started by startTLS has succeeded.
    virtual void socketDidSecure(TcpSocket& /*sock*/) {}
    /// Once for every connection, connect attempt or listener that ends. error is empty when
    /// this side closed it in order (disconnect and its variants); reads and writes still queued
    /// are dropped without a report.
    virtual void socketDidDisconnect(TcpSocket& /*sock*/,
                                     const std::optional<TcpSocketError>& /*error*/) {}
};

/// An asynchronous TCP socket: a connection (made by connectToHost or connectToAddress, or
/// accepted) or a listener (acceptOnPort), optionally secured with TLS over OpenSSL.
///
/// Reads and writes are queued and carried out in order, each with a time-out and the caller's
/// tag, which comes back in its report. A read or write may be queued from the moment a connect
/// is asked for. TLS (startTLS) waits for the reads and writes queued before it. Memory stays
/// bounded whatever the peer sends: reads take only what they asked for (a read to a delimiter
/// fails past its maximum length), and at most maxWriteQueueLength bytes may wait unwritten.
///
/// Threads: every public operation may be called from any thread, including from the delegate
/// queue. All work runs on one private serial socket queue (queries hop there and wait; reads,
/// writes and the delayed disconnects are posted there and return at once); names are resolved
/// on the global queue; delegate operations are posted to the delegate queue.
/// Owned by std::shared_ptr (create()); work in flight keeps the socket alive until it has run.
class TcpSocket : public std::enable_shared_from_this<TcpSocket> {
  public:
    /// A listener's cap on its accepted connections that are open at once. Past it a new
    /// connection is accepted and closed at once, so the peer sees its connection end.
    static constexpr std::size_t defaultMaxAcceptedConnections = 256;
    /// Seconds an accepted connection may move no byte either way before it is disconnected
    /// with idleTimeout; negative for no limit.
    static constexpr double defaultAcceptedIdleTimeout = 300.0;
    /// Bytes that may wait unwritten before write() refuses more.
    static constexpr std::size_t defaultMaxWriteQueueLength = 16 * 1024 * 1024;
    /// The most a single receive takes from the system: what may be read ahead of the reads
    /// queued, and so the most a read to a delimiter holds beyond its maximum length.
    static constexpr std::size_t readChunkLength = 64 * 1024;

    /// Without a socket queue the socket makes its own queue labelled "TcpSocket".
    static std::shared_ptr<TcpSocket> create(std::weak_ptr<TcpSocketDelegate> delegate = {},
                                             std::shared_ptr<DispatchQueue> delegateQueue = nullptr,
                                             std::shared_ptr<SerialQueue> socketQueue = nullptr);

    /// Closes without a report (the socket is gone by then).
    ~TcpSocket();
    TcpSocket(const TcpSocket&) = delete;
    TcpSocket& operator=(const TcpSocket&) = delete;

    // Delegate. setDelegate applies asynchronously when called off the socket queue.
    std::weak_ptr<TcpSocketDelegate> delegate() const;
    std::shared_ptr<DispatchQueue> delegateQueue() const;
    void setDelegate(std::weak_ptr<TcpSocketDelegate> delegate,
                     std::shared_ptr<DispatchQueue> delegateQueue);
    void synchronouslySetDelegate(std::weak_ptr<TcpSocketDelegate> delegate,
                                  std::shared_ptr<DispatchQueue> delegateQueue);

    // Options. They apply at once to an open connection and to every later one, accepted
    // connections of a listener included.
    bool setNoDelay(bool flag, TcpSocketError* error = nullptr);    ///< TCP_NODELAY
    bool setKeepAlive(bool flag, TcpSocketError* error = nullptr);  ///< SO_KEEPALIVE
    void setMaxAcceptedConnections(std::size_t count);
    std::size_t maxAcceptedConnections() const;
    void setAcceptedIdleTimeout(double seconds);
    double acceptedIdleTimeout() const;
    /// A write that would take the queue past this is refused, unless the queue is empty: one
    /// write of any size always goes.
    void setMaxWriteQueueLength(std::size_t bytes);
    std::size_t maxWriteQueueLength() const;

    // Connecting. The outcome is reported by socketDidConnect, or by socketDidDisconnect with
    // the error. A host's addresses are tried in the resolver's order until one answers (a
    // refusal moves on to the next); timeout (seconds, negative for none) covers them all.
    // interface: a name ("eth0"), "localhost"/"loopback", or a numeric address to connect
    // from. False (with error) when the call does not fit: nothing is reported then.
    bool connectToHost(const std::string& host, std::uint16_t port, double timeout = -1.0,
                       TcpSocketError* error = nullptr);
    bool connectToHost(const std::string& host, std::uint16_t port,
                       const std::optional<std::string>& interface, double timeout,
                       TcpSocketError* error = nullptr);
    bool connectToAddress(const SocketAddress& address, double timeout = -1.0,
                          TcpSocketError* error = nullptr);
    bool connectToAddress(const SocketAddress& address, const std::optional<std::string>& interface,
                          double timeout, TcpSocketError* error = nullptr);

    // Accepting. Listens on port (0: the kernel picks; both families then share its choice)
    // of every address, or of an interface's addresses; each connection is reported by
    // socketWillAccept and socketDidAccept.
    bool acceptOnPort(std::uint16_t port, TcpSocketError* error = nullptr);
    bool acceptOnInterface(const std::optional<std::string>& interface, std::uint16_t port,
                           TcpSocketError* error = nullptr);
    /// The accepted connections of this listener that are still open.
    std::size_t acceptedConnectionCount() const;

    // Reading. Each read is queued behind the others and reported by socketDidReadData with its
    // tag; timeout in seconds, negative for none, counted from when the read first has to wait
    // for the peer. A time-out, or the peer closing before a read is done, disconnects with the
    // error. False (with a bad-param error, nothing queued) for a read that cannot be done.
    /// Whatever has arrived, at least one byte, at most maxLength.
    bool readAvailable(std::size_t maxLength, double timeout, std::int64_t tag,
                       TcpSocketError* error = nullptr);
    /// Exactly length bytes. The buffer grows as bytes arrive, never ahead of them, so a length
    /// taken from the peer costs only what the peer really sends; still, bound it.
    bool readExactly(std::size_t length, double timeout, std::int64_t tag,
                     TcpSocketError* error = nullptr);
    /// Up to and including the first delimiter. Past maxLength bytes (delimiter included)
    /// without one, the read fails with readMaxedOut and the connection is closed.
    bool readToDelimiter(std::vector<std::uint8_t> delimiter, std::size_t maxLength,
                         double timeout, std::int64_t tag, TcpSocketError* error = nullptr);

    // Writing. The bytes are taken over (move them in) and written in order behind the writes
    // already queued; each is reported by socketDidWriteDataWithTag once the system has all of
    // it. timeout in seconds, negative for none, counted from when the write first has to wait.
    // A time-out disconnects with writeTimeout. Writes given to a socket that is neither
    // connected nor connecting, or after shutdownWrite, are dropped without a report.
    /// False with writeQueueFull when the queue bound would be passed (nothing is queued).
    bool write(std::vector<std::uint8_t> data, double timeout, std::int64_t tag,
               TcpSocketError* error = nullptr);

    /// Secures the connection once the reads and writes queued before it are done; reads and
    /// writes queued after it wait for the handshake. Reported by socketDidSecure, or by
    /// socketDidDisconnect with a tls error saying why. The files are loaded in this call:
    /// false with the error when they cannot be, or when TLS was already started.
    bool startTLS(const TlsSettings& settings, TcpSocketError* error = nullptr);

    // Disconnecting. disconnect is synchronous; the others take effect once the reads, the
    // writes or both that are queued at that time (and any queued later) are done. Each ends
    // in one socketDidDisconnect without an error.
    void disconnect();
    void close() { disconnect(); }  ///< the same, under the name users look for
    void disconnectAfterReading();
    void disconnectAfterWriting();
    void disconnectAfterReadingAndWriting();
    /// Half-close: once the queued writes are done, tells the peer that nothing more will be
    /// written (with TLS, a close_notify first), while reading goes on.
    void shutdownWrite();

    // Inspection. Addresses come from the system when the connection or listener opens.
    SocketAddress localAddress() const;
    std::string localHost() const;
    std::uint16_t localPort() const;
    SocketAddress connectedAddress() const;
    std::string connectedHost() const;
    std::uint16_t connectedPort() const;
    bool isConnected() const;
    bool isAccepting() const;
    bool isDisconnected() const;  ///< neither connecting, connected nor accepting
    bool isSecure() const;

  private:
    struct Private {};

  public:
    TcpSocket(Private, std::weak_ptr<TcpSocketDelegate> delegate,
              std::shared_ptr<DispatchQueue> delegateQueue,
              std::shared_ptr<SerialQueue> socketQueue);  // use create()

  private:
    struct Descriptor;  // one descriptor and its readiness sources
    struct State;       // everything the socket keeps; touched only on the socket queue, but for
                        // the write-queue counters

    bool startCheck(TcpSocketError* error) const;

    bool openSources(Descriptor& d, bool withWrite, TcpSocketError* error);
    void closeDescriptor(Descriptor& d);
    void updateSources();
    void closeWithError(std::optional<TcpSocketError> error);
    bool applyOptions(int fd, TcpSocketError* error) const;
    void cacheAddresses(int fd);
    void armTimer(std::shared_ptr<TimerSource>& timer, double timeout,
                  std::function<void(TcpSocket&)> onFire);
    static void cancelTimer(std::shared_ptr<TimerSource>& timer);
    void maybeDisconnectAfterIO();

    bool startConnect(const std::string& host, std::uint16_t port,
                      const std::optional<SocketAddress>& address,
                      const std::optional<std::string>& interface, double timeout,
                      TcpSocketError* error);
    void didResolve(std::uint64_t attempt, std::vector<SocketAddress> addresses,
                    std::optional<TcpSocketError> error);
    void tryNextAddress();
    void finishConnect();
    void didConnect();

    bool startAccepting(const std::optional<std::string>& interface, std::uint16_t port,
                        TcpSocketError* error);
    int openListener(const SocketAddress& address, TcpSocketError* error) const;
    void onAcceptable(bool isIPv4);
    void deliverAccepted(int fd, const SocketAddress& peer);
    void adoptAccepted(int fd, std::shared_ptr<std::atomic<std::size_t>> counter,
                       double idleTimeout);
    void checkIdle();

    void enqueueRead(std::shared_ptr<TcpReadRequest> request);
    void onReadable();
    void continueReading();
    enum class Received { data, endOfStream, wouldBlock, failed };
    Received receiveChunk();
    void completeRead();

    void onWritable();
    void continueWriting();
    enum class Sent { some, wouldBlock, failed };
    Sent sendSome(std::size_t* written);
    void completeWrite();
    void dropWrite(const TcpWriteRequest& request);
    void shutdownWriteNow();

    void maybeStartHandshake();
    void continueHandshake();

    const std::unique_ptr<State> d_;
};

}  // namespace kavrin
