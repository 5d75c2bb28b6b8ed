#include "osc/transport/OSCClient.hpp"

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <stdexcept>

#include "osc/dispatch/GlobalQueue.hpp"
#include "osc/dispatch/SerialQueue.hpp"
#include "osc/transport/UdpSocket.hpp"

namespace kavrin {

namespace {

// Covers a slow name lookup as well as a send that waits for room; the socket's own send
// timer starts only once a send would block, so it bounds neither alone.
constexpr std::chrono::seconds releaseBound{5};
// One timeout for every datagram.
constexpr double sendTimeout = 1.0;

}  // namespace

// Hears the socket's outcomes and turns a failure back into its destination: each datagram is
// sent with a tag of its own, kept until its outcome is known.
class OSCClient::Reporter final : public UdpSocketDelegate {
  public:
    explicit Reporter(FailureHandler onFailure) : onFailure_(std::move(onFailure)) {}

    std::int64_t tagFor(const std::string& host, std::uint16_t port) {
        const std::int64_t tag = ++lastTag_;
        std::lock_guard lock(mutex_);
        inFlight_.emplace(tag, std::make_pair(host, port));
        return tag;
    }

    void udpSocketDidSendDataWithTag(UdpSocket&, std::int64_t tag) override { take(tag); }

    void udpSocketDidNotSendDataWithTag(UdpSocket&, std::int64_t tag,
                                        const UdpSocketError& error) override {
        if (const auto destination = take(tag)) {
            onFailure_(destination->first, destination->second, error);
        }
    }

  private:
    std::optional<std::pair<std::string, std::uint16_t>> take(std::int64_t tag) {
        std::lock_guard lock(mutex_);
        const auto found = inFlight_.find(tag);
        if (found == inFlight_.end()) return std::nullopt;
        auto destination = std::move(found->second);
        inFlight_.erase(found);
        return destination;
    }

    const FailureHandler onFailure_;
    std::atomic<std::int64_t> lastTag_{0};  // 0 is the plain client's tag
    std::mutex mutex_;
    std::map<std::int64_t, std::pair<std::string, std::uint16_t>> inFlight_;
};

OSCClient::OSCClient() : udpClient(UdpSocket::create()) {}

OSCClient::OSCClient(std::string host, std::uint16_t port, FailureHandler onFailure,
                     std::shared_ptr<DispatchQueue> failureQueue)
    : udpClient(UdpSocket::create()),
      target(std::make_pair(std::move(host), port)),
      reporter(onFailure ? std::make_shared<Reporter>(std::move(onFailure)) : nullptr) {
    if (reporter) {
        udpClient->synchronouslySetDelegate(
            reporter, failureQueue ? std::move(failureQueue) : SerialQueue::create("OSCClient"));
    }
}

OSCClient::~OSCClient() {
    // What was sent before the release still goes out: the socket closes once its queue is
    // empty, and at the latest after the bound, which keeps it alive until then.
    udpClient->closeAfterSending();
    GlobalQueue::get()->asyncAfter(releaseBound, [socket = udpClient] { socket->close(); });
}

void OSCClient::send(const OSCPacket& packet, const std::string& host, std::uint16_t port) {
    // Encoding may fail: before anything waits for an outcome.
    auto bytes = packet.rawData(textPolicy_.load());
    // A plain client sends every datagram with tag 0, its outcome going nowhere.
    const std::int64_t tag = reporter ? reporter->tagFor(host, port) : 0;
    udpClient->sendData(std::move(bytes), host, port, sendTimeout, tag);
}

void OSCClient::send(const OSCPacket& packet) {
    if (!target) throw std::logic_error("This OSCClient has no target: name the destination.");
    send(packet, target->first, target->second);
}

}  // namespace kavrin
