#pragma once

#include <any>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "osc/transport/SocketAddress.hpp"
#include "osc/transport/UdpDatagramBlock.hpp"
#include "osc/transport/UdpSocketError.hpp"

namespace kavrin {

class DispatchQueue;
class SerialQueue;
class UdpSocket;
class UdpSendPacket;

/// Receives a UdpSocket's reports. Every operation is optional (the defaults do nothing) and is
/// always called asynchronously on the socket's delegate queue, never from inside a socket call.
/// The socket holds its delegate weakly.
class UdpSocketDelegate {
  public:
    virtual ~UdpSocketDelegate() = default;

    virtual void udpSocketDidConnectToAddress(UdpSocket& /*sock*/,
                                              const SocketAddress& /*address*/) {}
    virtual void udpSocketDidNotConnect(UdpSocket& /*sock*/, const UdpSocketError& /*error*/) {}
    virtual void udpSocketDidSendDataWithTag(UdpSocket& /*sock*/, std::int64_t /*tag*/) {}
    virtual void udpSocketDidNotSendDataWithTag(UdpSocket& /*sock*/, std::int64_t /*tag*/,
                                                const UdpSocketError& /*error*/) {}
    /// data is the datagram, handed over (the receiver owns it); filterContext is what the
    /// receive filter stored, empty without a filter.
    virtual void udpSocketDidReceiveData(UdpSocket& /*sock*/, std::vector<std::uint8_t> /*data*/,
                                         const SocketAddress& /*address*/,
                                         const std::any& /*filterContext*/) {}
    /// The datagrams read in one turn of the socket queue, handed over (the receiver owns the
    /// block) in one call, in order. By default each goes on to udpSocketDidReceiveData with a
    /// copy of its own; a delegate that can take the block whole overrides this instead.
    virtual void udpSocketDidReceiveBlock(UdpSocket& sock, UdpDatagramBlock block);
    /// error is empty for a plain close.
    virtual void udpSocketDidClose(UdpSocket& /*sock*/,
                                   const std::optional<UdpSocketError>& /*error*/) {}
};

/// An asynchronous UDP socket over up to two descriptors (IPv4 and IPv6), created lazily.
///
/// Threads: every public operation may be called from any thread, including from the delegate
/// queue. All work runs on one private serial socket queue (synchronous operations hop there and
/// wait, or run inline when already on it); names are resolved on the global queue; delegate
/// operations are posted to the delegate queue; filters run on their own queues.
/// Owned by std::shared_ptr (create()); work in flight keeps the socket alive until it has run.
class UdpSocket : public std::enable_shared_from_this<UdpSocket> {
  public:
    /// Decides whether a datagram is delivered; may store a context for the delegate.
    /// Runs on the filter queue; data is valid only during the call.
    using ReceiveFilter = std::function<bool(const std::vector<std::uint8_t>& data,
                                             const SocketAddress& address, std::any& context)>;
    /// Decides whether a datagram is transmitted. A false result still reports it as sent.
    using SendFilter = std::function<bool(const std::vector<std::uint8_t>& data,
                                          const SocketAddress& address, std::int64_t tag)>;

    /// socketQueue must be a SerialQueue and never a global (concurrent) queue; without one
    /// the socket makes its own queue labelled "UdpSocket".
    static std::shared_ptr<UdpSocket> create(std::weak_ptr<UdpSocketDelegate> delegate = {},
                                             std::shared_ptr<DispatchQueue> delegateQueue = nullptr,
                                             std::shared_ptr<DispatchQueue> socketQueue = nullptr);
    static std::shared_ptr<UdpSocket> create(std::shared_ptr<DispatchQueue> socketQueue);

    /// Closes without error (no didClose report: the socket is gone by then).
    ~UdpSocket();
    UdpSocket(const UdpSocket&) = delete;
    UdpSocket& operator=(const UdpSocket&) = delete;

    // Delegate. The plain setters apply asynchronously when called off the socket queue.
    std::weak_ptr<UdpSocketDelegate> delegate() const;
    void setDelegate(std::weak_ptr<UdpSocketDelegate> delegate);
    void synchronouslySetDelegate(std::weak_ptr<UdpSocketDelegate> delegate);
    std::shared_ptr<DispatchQueue> delegateQueue() const;
    void setDelegateQueue(std::shared_ptr<DispatchQueue> delegateQueue);
    void synchronouslySetDelegateQueue(std::shared_ptr<DispatchQueue> delegateQueue);
    void getDelegate(std::weak_ptr<UdpSocketDelegate>* delegate,
                     std::shared_ptr<DispatchQueue>* delegateQueue) const;
    void setDelegate(std::weak_ptr<UdpSocketDelegate> delegate,
                     std::shared_ptr<DispatchQueue> delegateQueue);
    void synchronouslySetDelegate(std::weak_ptr<UdpSocketDelegate> delegate,
                                  std::shared_ptr<DispatchQueue> delegateQueue);

    // Configuration.
    bool isIPv4Enabled() const;
    void setIPv4Enabled(bool flag);
    bool isIPv6Enabled() const;
    void setIPv6Enabled(bool flag);
    bool isIPv4Preferred() const;
    bool isIPv6Preferred() const;
    bool isIPVersionNeutral() const;
    void setPreferIPv4();
    void setPreferIPv6();
    void setIPVersionNeutral();

    std::uint16_t maxReceiveIPv4BufferSize() const;
    void setMaxReceiveIPv4BufferSize(std::uint16_t max);
    std::uint32_t maxReceiveIPv6BufferSize() const;
    /// Above 65535 the limit stays 65535: a larger datagram cannot arrive.
    void setMaxReceiveIPv6BufferSize(std::uint32_t max);
    std::uint16_t maxSendBufferSize() const;
    void setMaxSendBufferSize(std::uint16_t max);

    /// The kernel's receive buffer for both descriptors: how much may wait unread before the
    /// kernel drops datagrams. 0 (the default) sizes it like the send limit, which suits a
    /// light link; a receiver of fast streams enlarges it. Above the system's cap
    /// (net.core.rmem_max) it takes effect only for a privileged process. Applied to open
    /// descriptors at once and to every descriptor created later.
    bool setKernelReceiveBufferSize(std::size_t bytes, UdpSocketError* error = nullptr);
    std::size_t kernelReceiveBufferSize() const;  ///< as asked for, 0 for the default

    /// Bytes read and handed to the delegate that it has not finished with (see
    /// UdpDatagramBlock::hold) before the socket stops reading until it has: past this, what
    /// comes waits in the kernel's buffer, which drops when full. The socket may go over by
    /// the one block it is reading. 32 MiB by default.
    void setMaxReceiveBacklog(std::size_t bytes);
    std::size_t maxReceiveBacklog() const;

    std::any userData() const;
    void setUserData(std::any userData);

    /// Creates the descriptors if needed, then sets SO_REUSEPORT on them.
    bool enableReusePort(bool flag, UdpSocketError* error = nullptr);
    /// Creates the descriptors if needed, then sets SO_BROADCAST on the IPv4 one.
    bool enableBroadcast(bool flag, UdpSocketError* error = nullptr);

    // Binding and connecting. interface: a name ("eth0"), "localhost"/"loopback", or a numeric
    // address; none means the wildcard address of each family.
    bool bindToPort(std::uint16_t port, UdpSocketError* error = nullptr);
    bool bindToPort(std::uint16_t port, const std::optional<std::string>& interface,
                    UdpSocketError* error = nullptr);
    bool bindToAddress(const SocketAddress& address, UdpSocketError* error = nullptr);
    /// The outcome is reported by udpSocketDidConnectToAddress or udpSocketDidNotConnect.
    /// An empty host counts as missing.
    bool connectToHost(const std::string& host, std::uint16_t port,
                       UdpSocketError* error = nullptr);
    bool connectToAddress(const SocketAddress& address, UdpSocketError* error = nullptr);

    // Multicast. group and interface are numeric addresses (interface also by name).
    bool joinMulticastGroup(const std::string& group, UdpSocketError* error = nullptr);
    bool joinMulticastGroup(const std::string& group, const std::optional<std::string>& interface,
                            UdpSocketError* error = nullptr);
    bool leaveMulticastGroup(const std::string& group, UdpSocketError* error = nullptr);
    bool leaveMulticastGroup(const std::string& group, const std::optional<std::string>& interface,
                             UdpSocketError* error = nullptr);
    bool sendIPv4MulticastOnInterface(const std::string& interface,
                                      UdpSocketError* error = nullptr);
    bool sendIPv6MulticastOnInterface(const std::string& interface,
                                      UdpSocketError* error = nullptr);

    // Sending. Each call returns at once and takes the bytes over (move them in); the outcome is
    // reported with the tag by udpSocketDidSendDataWithTag / udpSocketDidNotSendDataWithTag.
    // An empty datagram is ignored without a report. timeout in seconds, negative for none.
    void sendData(std::vector<std::uint8_t> data, const std::string& host, std::uint16_t port,
                  double timeout, std::int64_t tag);
    void sendData(std::vector<std::uint8_t> data, const SocketAddress& address, double timeout,
                  std::int64_t tag);
    /// Connected sockets only.
    void sendData(std::vector<std::uint8_t> data, double timeout, std::int64_t tag);
    void sendData(std::vector<std::uint8_t> data, std::int64_t tag);  ///< no timeout

    /// A null filter removes it; a filter without a queue stops the program. A synchronous
    /// filter holds the socket queue while it runs, so it must not call into the socket.
    void setSendFilter(SendFilter filter, std::shared_ptr<DispatchQueue> queue);  ///< async
    void setSendFilter(SendFilter filter, std::shared_ptr<DispatchQueue> queue,
                       bool isAsynchronous);

    // Receiving. Datagrams are reported by udpSocketDidReceiveData.
    bool receiveOnce(UdpSocketError* error = nullptr);
    bool beginReceiving(UdpSocketError* error = nullptr);
    void pauseReceiving();
    /// Same rules as the send filter.
    void setReceiveFilter(ReceiveFilter filter, std::shared_ptr<DispatchQueue> queue);  ///< async
    void setReceiveFilter(ReceiveFilter filter, std::shared_ptr<DispatchQueue> queue,
                          bool isAsynchronous);

    // Closing. close is synchronous; closeAfterSending closes once the send queue is empty.
    void close();
    void closeAfterSending();

    // Inspection. Local values come from getsockname and are cached until the socket closes.
    SocketAddress localAddress() const;
    std::string localHost() const;
    std::uint16_t localPort() const;
    SocketAddress localAddressIPv4() const;
    std::string localHostIPv4() const;
    std::uint16_t localPortIPv4() const;
    SocketAddress localAddressIPv6() const;
    std::string localHostIPv6() const;
    std::uint16_t localPortIPv6() const;
    SocketAddress connectedAddress() const;
    std::string connectedHost() const;
    std::uint16_t connectedPort() const;
    bool isConnected() const;
    bool isClosed() const;
    bool isIPv4() const;
    bool isIPv6() const;
    /// The only descriptor, or -1 when there are none or two.
    int socketFD() const;
    int socket4FD() const;
    int socket6FD() const;

    /// Runs block on the socket queue and waits for it (inline when already there).
    void performBlock(const std::function<void()>& block) const;
    /// Mark a queue that runs work "as" the socket queue, so calls from it run inline.
    /// Unmark it before the socket goes away.
    void markSocketQueueTargetQueue(SerialQueue& queue);
    void unmarkSocketQueueTargetQueue(SerialQueue& queue);

    // Address blob helpers (host as numeric text, port in host order).
    static std::string hostFromAddress(const SocketAddress& address);
    static std::uint16_t portFromAddress(const SocketAddress& address);
    static int familyFromAddress(const SocketAddress& address);
    static bool isIPv4Address(const SocketAddress& address);
    static bool isIPv6Address(const SocketAddress& address);
    static bool getHost(std::string* host, std::uint16_t* port, const SocketAddress& address);
    static bool getHost(std::string* host, std::uint16_t* port, int* family,
                        const SocketAddress& address);

  private:
    struct Private {};

  public:
    UdpSocket(Private, std::weak_ptr<UdpSocketDelegate> delegate,
              std::shared_ptr<DispatchQueue> delegateQueue,
              std::shared_ptr<SerialQueue> socketQueue);  // use create()

  private:
    struct Family;  // one descriptor and what goes with it
    struct State;   // everything the socket keeps; touched only on the socket queue

    // Reports the datagrams read so far, then posts call(delegate, socket).
    template <class F>
    void notifyDelegate(F&& call);

    bool ensureSockets(UdpSocketError* error);
    bool createSockets(bool useIPv4, bool useIPv6, UdpSocketError* error);
    int createSocket(int domain, UdpSocketError* error);
    bool applyKernelReceiveBufferSize(int fd) const;
    void setupSources(Family& f, bool isIPv4);
    void closeSocket(Family& f, bool isIPv4);
    void closeWithError(std::optional<UdpSocketError> error);
    void suspendReceiveSourcesWithData();
    void resumeDrainedReceiveSources();
    void onWritable(bool isIPv4);
    void onReadable(bool isIPv4);

    bool getAddress(SocketAddress* address, int* family, UdpSocketError* error,
                    const std::vector<SocketAddress>& addresses) const;
    SocketAddress localAddressOf(bool isIPv4) const;

    bool bindPreCheck(UdpSocketError* error) const;
    bool bindAddresses(const SocketAddress& address4, const SocketAddress& address6,
                       UdpSocketError* error);
    bool connectPreCheck(UdpSocketError* error) const;
    void maybeConnect();
    bool connectWithAddress(const SocketAddress& address, int family, UdpSocketError* error);
    bool changeMulticastMembership(const std::string& group,
                                   const std::optional<std::string>& interface, bool join,
                                   UdpSocketError* error);

    void enqueue(std::shared_ptr<UdpSendPacket> packet);
    void maybeDequeueSend();
    void doPreSend();
    void finishSendFilter(bool allowed);
    void doSend();
    void setupSendTimer(double timeout);
    void endCurrentSend();
    void notifyDidSend(std::int64_t tag);
    void notifyDidNotSend(std::int64_t tag, const UdpSocketError& error);

    bool startReceiving(bool continuous, UdpSocketError* error);
    void doReceive();
    bool receiveOne(bool isIPv4);   // false when the receive step stops
    bool receiveMany(bool isIPv4);  // the same for several datagrams at once
    void deliver(std::span<const std::uint8_t> data, const SocketAddress& address,
                 std::any context);
    void reportReceived();  // hands the datagrams read so far to the delegate, as one block

    const std::unique_ptr<State> d_;
};

}  // namespace kavrin
