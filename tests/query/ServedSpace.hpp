#pragma once

// An address space served by an OSCQueryServer on loopback, as the query tests use it: three
// methods, one with a value, read on a serial queue of its own.

#include <atomic>

#include "osc/dispatch/SerialQueue.hpp"
#include "osc/query/OSCQueryServer.hpp"
#include "RawPeer.hpp"

namespace kavrin::queryTest {

using namespace std::chrono_literals;

using tcpTest::eventually;

struct ServedSpace {
    explicit ServedSpace(OSCQueryServer::Settings settings = {}) {
        settings.name = "Test desk";
        settings.oscPort = 9000;
        server = std::make_unique<OSCQueryServer>(space, queue, settings);
        server->start();
        OSCQueryAttributes gain;
        gain.type = "f";
        gain.description = "Gain";
        gain.access = OSCQueryAccess::readWrite;
        gain.range = {OSCQueryRange{OSCValue(0.0f), OSCValue(1.0f), {}}};
        server->registerMethod("/mixer/gain", [this](const OSCValueList&) { ++gainWrites; }, gain);
        OSCQueryAttributes name;
        name.type = "s";
        name.access = OSCQueryAccess::readOnly;
        server->registerMethod("/mixer/name", [](const OSCValueList&) {}, name);
        server->registerMethod("/ping", [](const OSCValueList&) {});
        server->setValue("/mixer/gain", {OSCValue(0.5f)});
        queue->sync([] {});
    }

    std::uint16_t port() const { return server->boundPort(); }

    /// One request on a connection of its own, and the whole response.
    std::string get(const std::string& target) const {
        RawPeer peer(port());
        peer.write("GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n");
        return peer.readAll();
    }

    const std::shared_ptr<OSCAddressSpace> space = std::make_shared<OSCAddressSpace>();
    const std::shared_ptr<SerialQueue> queue = SerialQueue::create("space");
    std::unique_ptr<OSCQueryServer> server;
    std::atomic<int> gainWrites{0};
};

}  // namespace kavrin::queryTest
