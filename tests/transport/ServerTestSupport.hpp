#pragma once

#include "osc/dispatch/ManualQueue.hpp"
#include "osc/transport/OSCServer.hpp"
#include "osc/transport/UdpSocketError.hpp"
#include "tests/UdpPeer.hpp"
#include "tests/transport/TcpTestSupport.hpp"

// What the OSCServer tests share: a started server whose deliveries are
// recorded on a ManualQueue.
namespace kavrin::test {

using namespace std::chrono_literals;

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
    UdpPeer sender;

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
            deliveries.push_back({std::string(message.addressPattern.rawAddress()), timeTag,
                                  DispatchQueue::Clock::now()});
        };
    }

    // From `sender`, to the server's port.
    void send(const std::vector<std::uint8_t>& datagram) {
        sender.sendTo(server->boundPort(), datagram);
    }

    bool waitFor(std::size_t count, std::chrono::milliseconds bound = 5000ms) {
        return main->drainUntil([&] { return deliveries.size() >= count; }, bound);
    }

    std::vector<std::string> addresses() const {
        std::vector<std::string> result;
        for (const auto& delivery : deliveries) result.push_back(delivery.address);
        return result;
    }
    std::vector<OSCTimeTag> timeTags() const {
        std::vector<OSCTimeTag> result;
        for (const auto& delivery : deliveries) result.push_back(delivery.timeTag);
        return result;
    }
};

inline std::vector<std::uint8_t> bytes(const OSCPacket& packet) {
    return packet.rawData();
}

}  // namespace kavrin::test
