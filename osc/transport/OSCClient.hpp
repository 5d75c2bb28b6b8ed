#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "osc/codec/OSCPacket.hpp"
#include "osc/codec/OSCTextPolicy.hpp"
#include "osc/transport/UdpSocketError.hpp"

namespace kavrin {

class DispatchQueue;
class UdpSocket;

/// Sends OSC packets as single UDP datagrams. Made plainly, it keeps no destination of its own
/// (every send names one) and reports nothing about delivery: a link is judged by its replies.
/// Made for one target, send(packet) goes there, and a failure handler, if given, hears of each
/// datagram that could not be sent.
///
/// Thread safety: send() may be called from any thread; the socket works on its own queue. The
/// failure handler runs on the queue given for it, else on a serial queue of the client's own.
class OSCClient {
  public:
    /// Given the destination and why its datagram was not sent: a name that did not resolve, a
    /// send that failed or timed out.
    using FailureHandler = std::function<void(const std::string& host, std::uint16_t port,
                                              const UdpSocketError& error)>;

    OSCClient();
    /// A client for `host` (a name or a numeric address) and `port`.
    OSCClient(std::string host, std::uint16_t port, FailureHandler onFailure = nullptr,
              std::shared_ptr<DispatchQueue> failureQueue = nullptr);
    /// Closes the socket once the datagrams already sent are handed to the kernel or have
    /// failed, and after a few seconds at the latest; returns at once.
    ~OSCClient();
    OSCClient(const OSCClient&) = delete;
    OSCClient& operator=(const OSCClient&) = delete;

    /// Encodes packet and queues it for host and port, then returns at once. Throws
    /// OSCEncodeError when the packet cannot be encoded, and sends nothing then; on a client
    /// made plainly, resolution and send failures are deliberately not reported.
    void send(const OSCPacket& packet, const std::string& host, std::uint16_t port);
    /// The same to the client's target; throws std::logic_error on a client made without one.
    void send(const OSCPacket& packet);
    /// How sends encode string arguments (OSCTextPolicy): ascii, the default, makes text that
    /// is not ASCII printable ASCII; utf8 keeps well-formed UTF-8 as it is.
    void setTextPolicy(OSCTextPolicy policy) { textPolicy_.store(policy); }

  private:
    class Reporter;

    const std::shared_ptr<UdpSocket> udpClient;
    const std::optional<std::pair<std::string, std::uint16_t>> target;
    const std::shared_ptr<Reporter> reporter;  // only with a failure handler
    std::atomic<OSCTextPolicy> textPolicy_{OSCTextPolicy::ascii};
};

}  // namespace kavrin
