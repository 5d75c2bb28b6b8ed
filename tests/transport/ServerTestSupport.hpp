#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "osc/dispatch/ManualQueue.hpp"
#include "osc/transport/OSCServer.hpp"
#include "osc/transport/UdpSocketError.hpp"

// What the OSCServer tests share: a raw sender and a started server whose deliveries are
// recorded on a ManualQueue.
namespace kavrin::test {

using namespace std::chrono_literals;

// A plain IPv4 UDP socket on 127.0.0.1; port 0 lets the kernel pick.
class RawSocket {
  public:
    explicit RawSocket(std::uint16_t port = 0) : fd_(::socket(AF_INET, SOCK_DGRAM, 0)) {
        sockaddr_in address = loopback(port);
        bound_ =
            fd_ >= 0 && ::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    }
    ~RawSocket() {
        if (fd_ >= 0) ::close(fd_);
    }
    RawSocket(const RawSocket&) = delete;
    RawSocket& operator=(const RawSocket&) = delete;

    bool bound() const { return bound_; }
    std::uint16_t port() const {
        sockaddr_in address{};
        socklen_t length = sizeof address;
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
        return ntohs(address.sin_port);
    }
    bool sendTo(std::uint16_t port, const std::vector<std::uint8_t>& bytes) const {
        sockaddr_in address = loopback(port);
        return ::sendto(fd_, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&address),
                        sizeof address) == static_cast<ssize_t>(bytes.size());
    }

    // The next datagram within `bound` and the port it came from, or nothing.
    std::optional<std::pair<std::vector<std::uint8_t>, std::uint16_t>> receiveFrom(
        std::chrono::milliseconds bound) const {
        pollfd entry{fd_, POLLIN, 0};
        if (::poll(&entry, 1, static_cast<int>(bound.count())) != 1) return std::nullopt;
        std::vector<std::uint8_t> datagram(65536);
        sockaddr_in from{};
        socklen_t length = sizeof from;
        const ssize_t size = ::recvfrom(fd_, datagram.data(), datagram.size(), 0,
                                        reinterpret_cast<sockaddr*>(&from), &length);
        if (size < 0) return std::nullopt;
        datagram.resize(static_cast<std::size_t>(size));
        return std::make_pair(std::move(datagram), ntohs(from.sin_port));
    }

  private:
    static sockaddr_in loopback(std::uint16_t port) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return address;
    }
    int fd_;
    bool bound_ = false;
};

struct Delivery {
    std::string address;
    OSCTimeTag timeTag;
    DispatchQueue::Clock::time_point at;
};

// A started server on a free port whose handler records deliveries made on a ManualQueue.
struct Fixture {
    std::shared_ptr<ManualQueue> main = std::make_shared<ManualQueue>();
    std::shared_ptr<OSCServer> server;
    std::vector<Delivery> deliveries;
    bool offQueue = false;

    // Port 0: the kernel picks a free one, which boundPort() tells.
    explicit Fixture(OSCServer::TimeTagMode mode) {
        server = OSCServer::create(0, nullptr, main, mode);
        try {
            server->start();
        } catch (const UdpSocketError& error) {
            ADD_FAILURE() << error.what();
            server.reset();
        }
        if (server) server->setHandler(recorder());
    }

    OSCServer::Handler recorder() {
        return [this](const OSCMessage& message, const OSCTimeTag& timeTag) {
            if (!main->isCurrent()) offQueue = true;
            deliveries.push_back(
                {std::string(message.addressPattern.rawAddress()), timeTag, DispatchQueue::Clock::now()});
        };
    }

    bool waitFor(std::size_t count, std::chrono::milliseconds bound = 5000ms) {
        return main->drainUntil([&] { return deliveries.size() >= count; }, bound);
    }

    std::vector<std::string> addresses() const {
        std::vector<std::string> result;
        for (const auto& delivery : deliveries) result.push_back(delivery.address);
        return result;
    }
};

inline std::vector<std::uint8_t> bytes(const OSCPacket& packet) {
    return packet.rawData();
}

}  // namespace kavrin::test
