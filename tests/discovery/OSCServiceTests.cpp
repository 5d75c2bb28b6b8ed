// Advertising and browsing against a real Avahi daemon on loopback, and against Avahi's own tools
// both ways, without the daemon and across its restart.

#include <algorithm>
#include <map>

#include "../transport/OpensslProcess.hpp"
#include "ZeroconfTest.hpp"
#include "osc/discovery/OSCServiceAdvertiser.hpp"
#include "osc/discovery/OSCServiceBrowser.hpp"
#include "osc/dispatch/ManualQueue.hpp"
#include "osc/stream/OSCStreamServer.hpp"
#include "osc/transport/OSCServer.hpp"

namespace kavrin::zeroconfTest {
namespace {

using namespace std::chrono_literals;
using Event = OSCServiceBrowser::Event;
using State = OSCZeroconfStatus::State;

// What a browser reported, by service name: the last event and the service.
struct Found {
    explicit Found(std::vector<std::string> types = {std::string(oscUdpServiceType),
                                                     std::string(oscTcpServiceType)})
        : browser(std::move(types), queue, [this](Event event, const OSCService& service) {
              events[service.name] = {event, service};
          }) {}

    bool until(const std::function<bool()>& done, std::chrono::milliseconds bound = 10s) {
        return queue->drainUntil(done, bound);
    }
    bool has(const std::string& name, Event event) const {
        const auto found = events.find(name);
        return found != events.end() && found->second.first == event;
    }

    const std::shared_ptr<ManualQueue> queue = std::make_shared<ManualQueue>();
    std::map<std::string, std::pair<Event, OSCService>> events;
    OSCServiceBrowser browser;
};

TEST_F(Zeroconf, ServersAreAdvertisedFoundResolvedAndWithdrawn) {
    Found found;
    auto udp = OSCServer::create(0, nullptr, found.queue, OSCServer::TimeTagMode::ignore);
    udp->start();
    OSCStreamSettings slipSettings;
    slipSettings.framing = OSCFraming::slip;
    auto slip = OSCStreamServer::create(0, found.queue, OSCStreamServer::TimeTagMode::ignore, slipSettings);
    slip->start();
    std::vector<std::string> published;
    auto record = [&](const OSCZeroconfStatus& status, const std::string& name) {
        if (status.state == State::running) published.push_back(name);
    };
    const auto name = named("Kavrin test");
    OSCServiceAdvertiser udpAdvertiser(name, *udp, found.queue, record);
    auto slipAdvertiser = std::make_unique<OSCServiceAdvertiser>(name, *slip, found.queue, record);
    // The same name and type again: Avahi's alternative name.
    OSCServiceAdvertiser second(OSCService(name, std::string(oscUdpServiceType), 9, {{"k", "v"}}),
                                found.queue, record);
    // Two services share a name, of two types; services of tests before may linger a second.
    std::vector<OSCService> services;
    const auto byType = [&](std::string_view type, const std::string& wanted) -> const OSCService* {
        const auto it = std::find_if(services.begin(), services.end(), [&](const OSCService& s) {
            return s.type == type && s.name == wanted;
        });
        return it == services.end() ? nullptr : &*it;
    };
    const OSCService *udpService = nullptr, *slipService = nullptr, *secondService = nullptr;
    ASSERT_TRUE(found.until([&] {
        services = found.browser.services();
        udpService = byType(oscUdpServiceType, name);
        slipService = byType(oscTcpServiceType, name);
        secondService = byType(oscUdpServiceType, name + " #2");
        return published.size() == 3 && udpService && slipService && secondService;
    })) << services.size() << " found, " << published.size() << " published";
    EXPECT_EQ(second.publishedName(), name + " #2");
    EXPECT_EQ(second.status().text, "published as \"" + name + " #2\"");
    EXPECT_EQ(udpService->port, udp->boundPort());
    EXPECT_TRUE(udpService->hostName.ends_with(".local")) << udpService->hostName;
    EXPECT_EQ(udpService->domain, "local");
    EXPECT_EQ(udpService->addresses, std::vector<std::string>{"127.0.0.1"});
    EXPECT_EQ(slipService->port, slip->boundPort());
    EXPECT_EQ(slipService->txt, (std::map<std::string, std::string>{{"framing", "slip"}}));
    EXPECT_EQ(secondService->txt, (std::map<std::string, std::string>{{"k", "v"}}));

    slipAdvertiser.reset();
    EXPECT_TRUE(found.until([&] {
        services = found.browser.services();
        return !byType(oscTcpServiceType, name) && byType(oscUdpServiceType, name);
    }));
}

TEST_F(Zeroconf, AvahisOwnToolsSeeOursAndWeSeeTheirsAcrossARestartOfTheDaemon) {
    Found found({std::string(oscUdpServiceType)});
    const auto peerName = named("Peer desk");
    tcpTest::ChildProcess publisher("avahi-publish", {"-s", peerName, "_osc._udp", "9123", "framing=none"},
                                    tcpTest::ChildProcess::Errors::merged);
    ASSERT_TRUE(found.until([&] { return found.has(peerName, Event::appeared); })) << publisher.output();
    const auto& peer = found.events[peerName].second;
    EXPECT_EQ(peer.port, 9123);
    EXPECT_EQ(peer.txt, (std::map<std::string, std::string>{{"framing", "none"}}));
    publisher.stop(5s);
    EXPECT_TRUE(found.until([&] { return found.has(peerName, Event::disappeared); }));

    const auto ourName = named("Kavrin for avahi-browse");
    OSCServiceAdvertiser ours(OSCService(ourName, "_osc._udp", 9124, {{"k", "v"}}), found.queue);
    ASSERT_TRUE(found.until([&] { return found.has(ourName, Event::appeared); }));
    tcpTest::ChildProcess browse("avahi-browse", {"--resolve", "--parsable", "--terminate", "_osc._udp"},
                                 tcpTest::ChildProcess::Errors::separate);
    browse.waitForExit(10s);
    EXPECT_NE(browse.output().find(";IPv4;Kavrin\\032for\\032avahi-browse\\032" + std::to_string(::getpid()) +
                                   ";_osc._udp;local;"),
              std::string::npos)
        << browse.output() << browse.errors();
    EXPECT_NE(browse.output().find(";127.0.0.1;9124;\"k=v\""), std::string::npos) << browse.output();

    ASSERT_TRUE(stopDaemon());
    // The service goes with the daemon.
    ASSERT_TRUE(found.until([&] {
        return found.has(ourName, Event::disappeared) &&
               found.browser.status().state == State::daemonNotRunning &&
               ours.status().state == State::daemonNotRunning;
    }));
    EXPECT_EQ(found.browser.status().text, "the Avahi daemon is not running");
    EXPECT_EQ(ours.status().text, "the Avahi daemon is not running");
    ASSERT_TRUE(startDaemon());
    // A fresh daemon probes the name again before it announces it: slow on a loaded machine.
    EXPECT_TRUE(found.until(
        [&] {
            return found.has(ourName, Event::appeared) && ours.status().state == State::running &&
                   found.browser.status().state == State::running;
        },
        30s));
}

}  // namespace
}  // namespace kavrin::zeroconfTest
