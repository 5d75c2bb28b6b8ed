#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "osc/codec/OSCBundle.hpp"
#include "osc/transport/OSCServer.hpp"
#include "osc/transport/UdpSocket.hpp"
#include "tests/transport/ServerTestSupport.hpp"

using namespace kavrin;
using namespace kavrin::test;
using namespace std::chrono_literals;

TEST(OSCServerMethods, RouteMatchingMessagesInTheSpacesOrderBesidesTheHandler) {
    Fixture fixture(OSCServer::TimeTagMode::ignore);
    ASSERT_TRUE(fixture.server);
    auto& server = *fixture.server;
    std::vector<std::string> calls;
    const auto note = [&](std::string name) {
        return [&calls, name](const OSCMessage& message, const OSCTimeTag&) {
            calls.push_back(name + " " + std::string(message.addressPattern.rawAddress()));
        };
    };
    const auto x = server.addMethod("/mixer/x", note("x"));
    server.addMethod("/mixer/y", note("y"));
    std::vector<std::pair<std::int32_t, float>> typed;
    server.addMethod<std::int32_t, float>("/mixer/typed", [&](std::int32_t channel, float level) {
        typed.emplace_back(channel, level);
    });
    std::vector<std::string> mismatches;
    server.setMismatchHandler([&](const OSCMessage& message, const OSCValueMaskError& error) {
        mismatches.push_back(std::string(message.addressPattern.rawAddress()) + ": " + error.what());
    });

    RawSocket sender;
    const auto port = server.boundPort();
    ASSERT_TRUE(sender.sendTo(port, bytes(OSCMessage("/mixer/*"))));
    ASSERT_TRUE(sender.sendTo(port, bytes(OSCMessage("/mixer/typed", {12, 0.5f}))));
    ASSERT_TRUE(sender.sendTo(port, bytes(OSCMessage("/mixer/typed", {std::string("no")}))));
    ASSERT_TRUE(fixture.waitFor(3));
    EXPECT_EQ(calls, (std::vector<std::string>{"x /mixer/*", "y /mixer/*"}));
    EXPECT_EQ(typed, (std::vector<std::pair<std::int32_t, float>>{{12, 0.5f}}));
    // "/mixer/*" reaches the typed method too, with no values to give it.
    ASSERT_EQ(mismatches.size(), 2u);
    EXPECT_EQ(mismatches[0].rfind("/mixer/*: ", 0), 0u) << mismatches[0];
    EXPECT_EQ(mismatches[1].rfind("/mixer/typed: ", 0), 0u) << mismatches[1];
    EXPECT_EQ(fixture.addresses().size(), 3u) << "the handler still sees every message";
    EXPECT_EQ(server.counters().mismatches, 2u);

    // The route is fixed when the message arrives: one removed after that still runs.
    calls.clear();
    ASSERT_TRUE(sender.sendTo(port, bytes(OSCMessage("/mixer/x"))));
    ASSERT_TRUE(fixture.main->waitForWork(5s));
    EXPECT_TRUE(server.removeMethod(x));
    EXPECT_FALSE(server.removeMethod(x));
    EXPECT_TRUE(server.removeMethod("/mixer/y"));
    EXPECT_FALSE(server.removeMethod("/mixer/nothing"));
    ASSERT_TRUE(fixture.waitFor(4));
    EXPECT_EQ(calls, (std::vector<std::string>{"x /mixer/x"}));
    ASSERT_TRUE(sender.sendTo(port, bytes(OSCMessage("/mixer/*"))));
    ASSERT_TRUE(fixture.waitFor(5));
    EXPECT_EQ(calls.size(), 1u) << "removed methods are no longer routed to";
}

TEST(OSCServerMethods, PortZeroGivesOneBoundPortForBothFamilies) {
    auto main = std::make_shared<ManualQueue>();
    std::vector<std::string> received;
    auto server = OSCServer::create(0, nullptr, main, OSCServer::TimeTagMode::ignore,
                                    [&](const OSCMessage& message, const OSCTimeTag&) {
                                        received.emplace_back(message.addressPattern.rawAddress());
                                    });
    EXPECT_EQ(server->boundPort(), 0) << "not bound before start";
    ASSERT_NO_THROW(server->start());
    const std::uint16_t port = server->boundPort();
    ASSERT_NE(port, 0);
    EXPECT_EQ(server->port(), 0) << "the port asked for stays what it was";

    auto client = UdpSocket::create();
    client->sendData(OSCMessage("/v4").rawData(), "127.0.0.1", port, 1.0, 0);
    client->sendData(OSCMessage("/v6").rawData(), "::1", port, 1.0, 0);
    ASSERT_TRUE(main->drainUntil([&] { return received.size() == 2; }, 5s));
    std::sort(received.begin(), received.end());
    EXPECT_EQ(received, (std::vector<std::string>{"/v4", "/v6"}));
}

TEST(OSCServerMethods, CountsWhatArrivesAndHandsEveryDroppedDatagramToTheHook) {
    Fixture fixture(OSCServer::TimeTagMode::osc1_0);
    ASSERT_TRUE(fixture.server);
    auto& server = *fixture.server;
    struct Dropped {
        std::vector<std::uint8_t> datagram;
        OSCServer::DropReason reason;
        std::string error;
        std::uint16_t senderPort;
    };
    std::vector<Dropped> dropped;
    server.setDropHandler([&](std::span<const std::uint8_t> datagram, const SocketAddress& from,
                              OSCServer::DropReason reason, const std::string& error) {
        dropped.push_back({{datagram.begin(), datagram.end()}, reason, error, from.port()});
    });
    server.setScheduledLimit({1, 1 << 20});

    RawSocket sender;
    const auto port = server.boundPort();
    const std::vector<std::uint8_t> hello = {'h', 'e', 'l', 'l', 'o'};
    const std::vector<std::uint8_t> shortInt = {'/', 'x', 0, 0, ',', 'i', 0, 0};
    const auto farAway = OSCTimeTag::fromDate(std::chrono::system_clock::now() + 24h);
    const auto twoLater = bytes(OSCBundle(farAway, {OSCMessage("/a"), OSCMessage("/b")}));
    const auto utf8 = OSCMessage("/u", {std::string("w\xC3\xB6rld")}).rawData(OSCTextPolicy::utf8);
    ASSERT_TRUE(sender.sendTo(port, hello));
    ASSERT_TRUE(sender.sendTo(port, shortInt));
    ASSERT_TRUE(sender.sendTo(port, twoLater));  // two waiting messages, the limit is one
    ASSERT_TRUE(sender.sendTo(port, utf8));      // the default text policy is ascii
    ASSERT_TRUE(sender.sendTo(port, bytes(OSCMessage("/ok"))));
    ASSERT_TRUE(fixture.main->drainUntil(
        [&] { return dropped.size() == 4 && !fixture.deliveries.empty(); }, 5s));
    EXPECT_EQ(dropped[0].datagram, hello);
    EXPECT_EQ(dropped[0].reason, OSCServer::DropReason::notOSC);
    EXPECT_EQ(dropped[0].error, "");
    EXPECT_EQ(dropped[1].datagram, shortInt);
    EXPECT_EQ(dropped[1].reason, OSCServer::DropReason::malformed);
    EXPECT_EQ(dropped[1].error, "Not enough bytes while reading Int32 data chunk.");
    EXPECT_EQ(dropped[2].datagram, twoLater);
    EXPECT_EQ(dropped[2].reason, OSCServer::DropReason::overScheduledLimit);
    EXPECT_EQ(dropped[3].datagram, utf8);
    EXPECT_EQ(dropped[3].reason, OSCServer::DropReason::malformed);
    EXPECT_EQ(dropped[3].error.substr(0, 34), "Failed to form valid ASCII string ");
    EXPECT_EQ(dropped[0].senderPort, sender.port());

    const auto counted = server.counters();
    EXPECT_EQ(counted.datagramsReceived, 5u);
    EXPECT_EQ(counted.messagesDelivered, 1u);
    EXPECT_EQ(counted.droppedNotOSC, 1u);
    EXPECT_EQ(counted.droppedMalformed, 2u);
    EXPECT_EQ(counted.droppedOverScheduledLimit, 1u);
    EXPECT_EQ(counted.droppedUnexpectedType + counted.droppedInternalInconsistency, 0u);

    // Without a hook the counting goes on, silently. Under utf8 the UTF-8 string is taken.
    server.setDropHandler(nullptr);
    server.setTextPolicy(OSCTextPolicy::utf8);
    ASSERT_TRUE(sender.sendTo(port, hello));
    ASSERT_TRUE(sender.sendTo(port, utf8));
    ASSERT_TRUE(fixture.waitFor(2));
    EXPECT_EQ(fixture.addresses().back(), "/u");
    EXPECT_EQ(server.counters().droppedNotOSC, 2u);
    EXPECT_EQ(dropped.size(), 4u);
}
