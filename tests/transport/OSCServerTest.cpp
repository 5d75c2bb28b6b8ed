#include "osc/transport/OSCServer.hpp"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <tuple>

#include "osc/codec/OSCBundle.hpp"
#include "osc/dispatch/ManualQueue.hpp"
#include "osc/dispatch/SerialQueue.hpp"
#include "osc/transport/UdpSocket.hpp"
#include "tests/UdpPeer.hpp"
#include "tests/transport/TcpTestSupport.hpp"

using namespace kavrin;
using namespace kavrin::test;
using namespace std::chrono_literals;

namespace {

struct Delivery {
    std::string address;
    OSCTimeTag timeTag;
    DispatchQueue::Clock::time_point at;
};

// A server started on a port of the kernel's choice (receiving on `receiveQueue`, or on a queue of
// its own), whose handler records each delivery made on a ManualQueue. A failed start throws its
// error, which fails the test.
struct Fixture {
    explicit Fixture(OSCServer::TimeTagMode mode,
                     std::shared_ptr<SerialQueue> receiveQueue = nullptr)
        : server(OSCServer::create(0, std::move(receiveQueue), main, mode,
                                   [this](const OSCMessage& message, const OSCTimeTag& timeTag) {
                                       offQueue = offQueue || !main->isCurrent();
                                       deliveries.push_back(
                                           {std::string(message.addressPattern.rawAddress()),
                                            timeTag, DispatchQueue::Clock::now()});
                                   })) {
        server->start();
    }

    void send(const std::vector<std::uint8_t>& datagram) {
        sender.sendTo(server->boundPort(), datagram);
    }
    bool waitFor(std::size_t count, std::chrono::milliseconds bound = 5s) {
        return main->drainUntil([&] { return deliveries.size() >= count; }, bound);
    }
    std::vector<std::string> addresses() const {
        std::vector<std::string> result;
        for (const auto& delivery : deliveries) result.push_back(delivery.address);
        return result;
    }

    std::shared_ptr<ManualQueue> main = std::make_shared<ManualQueue>();
    std::vector<Delivery> deliveries;
    bool offQueue = false;
    std::shared_ptr<OSCServer> server;
    UdpPeer sender;
};

std::vector<std::uint8_t> bytes(const OSCPacket& packet) {
    return packet.rawData();
}

}  // namespace

TEST(OSCServer, DeliversMessagesAndOpenedBundlesInOrderWithTheirTags) {
    Fixture fixture(OSCServer::TimeTagMode::ignore);

    const auto outer = OSCTimeTag::fromDate(std::chrono::system_clock::now() + 100s);
    const auto inner = OSCTimeTag::fromSeconds(12345.5);
    const OSCBundle bundle(
        outer, {OSCMessage("/b"), OSCBundle(inner, {OSCMessage("/c")}), OSCMessage("/d")});
    fixture.send(bytes(OSCMessage("/a")));
    fixture.send(bytes(bundle));
    fixture.send(bytes(OSCMessage("/e")));

    // Ignore mode delivers a far-future bundle at once, with the tag it carried.
    ASSERT_TRUE(fixture.waitFor(5));
    EXPECT_EQ(fixture.addresses(), (std::vector<std::string>{"/a", "/b", "/c", "/d", "/e"}));
    // A nested bundle passes its own tag.
    const auto now = OSCTimeTag::immediate();
    std::vector<OSCTimeTag> timeTags;
    for (const auto& delivery : fixture.deliveries) timeTags.push_back(delivery.timeTag);
    EXPECT_EQ(timeTags, (std::vector<OSCTimeTag>{now, outer, inner, outer, now}));
    EXPECT_FALSE(fixture.offQueue);

    // The handler in force when a delivery runs is the one called; none makes it a no-op.
    fixture.server->setHandler(nullptr);
    fixture.send(bytes(OSCMessage("/dropped")));
    ASSERT_TRUE(fixture.main->waitForWork(5s));
    EXPECT_EQ(fixture.main->drain(), 1u);
    fixture.send(bytes(OSCMessage("/late-bound")));
    ASSERT_TRUE(fixture.main->waitForWork(5s));
    std::vector<std::string> replaced;
    fixture.server->setHandler([&](const OSCMessage& message, const OSCTimeTag&) {
        replaced.emplace_back(message.addressPattern.rawAddress());
    });
    EXPECT_EQ(fixture.main->drain(), 1u);
    EXPECT_EQ(replaced, std::vector<std::string>{"/late-bound"});
    EXPECT_EQ(fixture.deliveries.size(), 5u);
}

// A bundle tagged ahead waits for its time, its messages in order: each once had a deadline of
// its own, taken from two clocks at slightly different moments, and they ran shuffled. A nested
// bundle keeps its own tag; one tagged in the past and a message are delivered at once.
TEST(OSCServer, HonoursFutureTimeTagsOnlyInOSC1_0Mode) {
    Fixture fixture(OSCServer::TimeTagMode::osc1_0);
    const auto sent = DispatchQueue::Clock::now();
    const auto soon = OSCTimeTag::fromDate(std::chrono::system_clock::now() + 300ms);
    const auto later = OSCTimeTag::fromDate(std::chrono::system_clock::now() + 500ms);
    std::vector<std::string> expected{"/past", "/now"};
    for (int b = 0; b < 4; ++b) {
        OSCBundle::Elements elements;
        for (int m = 0; m < 8; ++m) {
            expected.push_back("/m/" + std::to_string(b) + "/" + std::to_string(m));
            elements.emplace_back(OSCMessage(expected.back()));
            if (m == 3)
                elements.emplace_back(OSCBundle(later, {OSCMessage("/n/" + std::to_string(b))}));
        }
        fixture.send(bytes(OSCBundle(soon, std::move(elements))));
    }
    for (int b = 0; b < 4; ++b) expected.push_back("/n/" + std::to_string(b));
    const auto past = OSCTimeTag::fromDate(std::chrono::system_clock::now() - 10s);
    fixture.send(bytes(OSCBundle(past, {OSCMessage("/past")})));
    fixture.send(bytes(OSCMessage("/now")));
    ASSERT_TRUE(fixture.waitFor(expected.size()));
    EXPECT_EQ(fixture.addresses(), expected);
    EXPECT_LT(fixture.deliveries[1].at - sent, 250ms);
    const auto delay = fixture.deliveries[2].at - sent;
    EXPECT_GE(delay, 280ms);  // the tag's 32-bit fraction and two clocks allow a little slack
    EXPECT_LT(delay, 2s);
    EXPECT_EQ(fixture.deliveries[2].timeTag, soon);
    EXPECT_EQ(fixture.deliveries.back().timeTag, later);
    EXPECT_FALSE(fixture.offQueue);

    // A scheduled delivery does not keep a released server alive, and then does nothing.
    fixture.send(bytes(OSCBundle(OSCTimeTag::fromDate(std::chrono::system_clock::now() + 200ms),
                                 {OSCMessage("/orphan")})));
    fixture.send(bytes(OSCMessage("/marker")));
    // The marker came after the orphan was scheduled.
    ASSERT_TRUE(fixture.waitFor(expected.size() + 1));
    fixture.server.reset();
    EXPECT_FALSE(fixture.waitFor(expected.size() + 2, 500ms));
    EXPECT_EQ(fixture.main->pending(), 0u);
}

TEST(OSCServer, AViewHandlerSeesEachMessageAtOnceOnTheReceiveQueueBesidesTheHandler) {
    const auto receiveQueue = SerialQueue::create("receive");
    Fixture fixture(OSCServer::TimeTagMode::osc1_0, receiveQueue);
    const auto& server = fixture.server;
    using Seen = std::tuple<std::string, OSCTimeTag, std::uint16_t>;
    Log<Seen> viewed(receiveQueue, 5s);
    server->setViewHandler(
        [&](const OSCMessageView& message, const OSCTimeTag& timeTag, const SocketAddress& sender) {
            viewed.add({std::string(message.address()), timeTag, sender.port()});
        });
    const auto port = server->boundPort();
    UdpPeer& sender = fixture.sender;

    // A bundle tagged in the future is viewed at once, opened depth first with each tag, while
    // its owned delivery waits for the tag; a malformed datagram reaches neither.
    const auto outer = OSCTimeTag::fromDate(std::chrono::system_clock::now() + 100s);
    const auto inner = OSCTimeTag::fromDate(std::chrono::system_clock::now() + 200s);
    sender.sendTo(port, bytes(OSCBundle(
                            outer, {OSCMessage("/later"), OSCBundle(inner, {OSCMessage("/in")})})));
    sender.sendTo(port, {'/', 'x', 0, 0, ',', 'i', 0, 0});
    sender.sendTo(port, bytes(OSCMessage("/now")));
    ASSERT_TRUE(viewed.waitForSize(3));
    receiveQueue->sync([] {});  // the last datagram's turn has ended
    ASSERT_TRUE(fixture.waitFor(1));
    EXPECT_EQ(viewed.entries(),
              (std::vector<Seen>{{"/later", outer, sender.port()},
                                 {"/in", inner, sender.port()},
                                 {"/now", OSCTimeTag::immediate(), sender.port()}}));
    EXPECT_TRUE(viewed.allOnDelegateQueue);
    EXPECT_EQ(fixture.addresses(), std::vector<std::string>{"/now"});
    EXPECT_EQ(server->counters().droppedMalformed, 1u);
    EXPECT_EQ(server->counters().messagesViewed, 3u);

    // A view handler alone: nothing is decoded for the dispatch queue (where the bundle waits),
    // and what is not OSC at all is still counted as such.
    server->setHandler(nullptr);
    const auto waiting = fixture.main->pending();
    sender.sendTo(port, {'h', 'i'});
    sender.sendTo(port, bytes(OSCMessage("/alone")));
    ASSERT_TRUE(viewed.waitForSize(4));
    receiveQueue->sync([] {});
    EXPECT_EQ(fixture.main->pending(), waiting);
    EXPECT_EQ(server->counters().droppedNotOSC, 1u);
}

TEST(OSCServer, ScheduledDeliveriesHoldBoundedMemoryAndDatagramsAreAdmittedWhole) {
    Fixture fixture(OSCServer::TimeTagMode::osc1_0);
    EXPECT_EQ(fixture.server->scheduledLimit().messages, 10'000u);
    fixture.server->setScheduledLimit({5, 1 << 20});
    const auto soon = OSCTimeTag::fromDate(std::chrono::system_clock::now() + 300ms);
    const auto farAway = OSCTimeTag::fromDate(std::chrono::system_clock::now() + 24h);
    auto bundleOf = [](OSCTimeTag tag, std::vector<std::string> addresses,
                       OSCBundle::Elements more = {}) {
        OSCBundle::Elements elements;
        for (auto& address : addresses) elements.emplace_back(OSCMessage(address));
        for (auto& element : more) elements.push_back(std::move(element));
        return bytes(OSCBundle(tag, std::move(elements)));
    };
    fixture.send(bundleOf(soon, {"/a1", "/a2", "/a3"}));
    // Would hold six: dropped whole, its part due at once included.
    fixture.send(bundleOf(farAway, {"/x1", "/x2", "/x3"},
                          {OSCBundle(OSCTimeTag::immediate(), {OSCMessage("/x-now")})}));
    fixture.send(bundleOf(soon, {"/b1", "/b2"}));  // exactly five
    fixture.send(bytes(OSCMessage("/marker")));
    ASSERT_TRUE(fixture.waitFor(6));
    EXPECT_EQ(fixture.addresses(),
              (std::vector<std::string>{"/marker", "/a1", "/a2", "/a3", "/b1", "/b2"}));

    // Delivered deliveries free their room; the byte bound counts too.
    fixture.server->setScheduledLimit({100, 64});
    fixture.send(bundleOf(farAway, {"/fits"}));
    fixture.send(bundleOf(
        farAway, {"/a/much/longer/address/over/the/bytes", "/and/another/one/that/will/not/fit"}));
    fixture.send(bytes(OSCMessage("/marker2")));
    ASSERT_TRUE(fixture.waitFor(7));
    EXPECT_EQ(fixture.deliveries.back().address, "/marker2");
    EXPECT_FALSE(fixture.waitFor(8, 200ms));
}

TEST(OSCServerDeathTest, TheUTCEpochDeliversAStandardSendersBundleOnTimeWestOfUTC) {
    // Five hours west of UTC a sender counting from UTC tags "in 200 ms" as a moment the local
    // epoch places five hours later; with NTP's own epoch it arrives on time. In a process of
    // its own, for the zone and the epoch.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto deliversOnTime = [] {
        setenv("TZ", "EST5", 1);
        tzset();
        OSCTimeTag::setEpoch(OSCTimeTag::Epoch::utc);
        Fixture fixture(OSCServer::TimeTagMode::osc1_0);
        const auto seconds = std::chrono::duration<double>(
            std::chrono::system_clock::now().time_since_epoch() + std::chrono::milliseconds(200));
        const OSCTimeTag standard{
            0, static_cast<std::uint64_t>((seconds.count() + 2208988800.0) * 4294967296.0)};
        fixture.send(bytes(OSCBundle(standard, {OSCMessage("/on/time")})));
        std::exit(fixture.waitFor(1, 3000ms) ? 0 : 1);
    };
    EXPECT_EXIT(deliversOnTime(), testing::ExitedWithCode(0), "");
}

// Port 0 binds both families to one port of the kernel's choice. What the server sends leaves
// from that port, so a peer that answers the sender reaches it; a server stopped or not started
// would send from a port of its own, so nothing goes. A start on a port held exclusively fails
// with the bind error, and can be retried.
TEST(OSCServer, SendsFromItsOwnPortOnlyWhileItRunsAndStartsWhereItCan) {
    Fixture fixture(OSCServer::TimeTagMode::ignore);
    const auto port = fixture.server->boundPort();
    ASSERT_NE(port, 0);
    const auto six = UdpSocket::create();
    six->sendData(bytes(OSCMessage("/v6")), "::1", port, 1.0, 0);
    ASSERT_TRUE(fixture.waitFor(1));
    fixture.server->setSourceHandler(
        [&](const OSCMessage& message, const OSCTimeTag&, const SocketAddress& sender) {
            fixture.server->send(OSCMessage("/reply", message.values), sender);
        });
    UdpPeer peer;
    peer.sendTo(port, bytes(OSCMessage("/ping", {OSCValue(std::int32_t{7})})));
    ASSERT_TRUE(fixture.main->waitForWork(5s));
    fixture.main->drain();
    const auto reply = peer.receiveFrom(5s);
    ASSERT_TRUE(reply.has_value());
    EXPECT_EQ(reply->first, bytes(OSCMessage("/reply", {OSCValue(std::int32_t{7})})));
    EXPECT_EQ(reply->second, port);
    fixture.server->send(OSCMessage("/to/host"), "127.0.0.1", peer.port());
    const auto sent = peer.receiveFrom(5s);
    ASSERT_TRUE(sent.has_value());
    EXPECT_EQ(sent->first, bytes(OSCMessage("/to/host")));
    EXPECT_EQ(sent->second, port);

    fixture.server->stop();
    auto holder = std::make_unique<UdpPeer>();  // bound without SO_REUSEPORT
    auto held = OSCServer::create(holder->port(), nullptr, fixture.main,
                                  OSCServer::TimeTagMode::ignore);
    for (const auto& server : {fixture.server, held}) {
        EXPECT_THROW(server->send(OSCMessage("/x"), "127.0.0.1", peer.port()), UdpSocketError);
    }
    EXPECT_FALSE(peer.receiveFrom(100ms).has_value());
    fixture.sender.sendTo(port, bytes(OSCMessage("/stopped")));
    try {
        held->start();
        FAIL() << "start() succeeded on a port held exclusively";
    } catch (const UdpSocketError& error) {
        EXPECT_EQ(tcpTest::describe(error), "NSPOSIXErrorDomain " + std::to_string(EADDRINUSE) +
                                                ": " + std::strerror(EADDRINUSE) +
                                                " (Error in bind() function)");
    }
    // Once the port is free the same server starts (twice: start closes first) and receives.
    holder.reset();
    ASSERT_NO_THROW(held->start());
    ASSERT_NO_THROW(held->start());
    std::vector<std::string> again;
    held->setHandler([&](const OSCMessage& message, const OSCTimeTag&) {
        again.emplace_back(message.addressPattern.rawAddress());
    });
    fixture.sender.sendTo(held->port(), bytes(OSCMessage("/again")));
    ASSERT_TRUE(fixture.main->drainUntil([&] { return !again.empty(); }, 5s));
    EXPECT_EQ(fixture.addresses(), std::vector<std::string>{"/v6"}) << "the stopped one heard";
}

// Deliveries are handed over in batches; a burst of many datagrams, a bad one among them, must
// still arrive whole and in order, also when the dispatch queue falls behind: the socket then
// reads no further than its backlog lets it, and the kernel's buffer keeps the rest.
TEST(OSCServer, DeliversABurstWholeAndInOrder) {
    Fixture fixture(OSCServer::TimeTagMode::osc1_0);
    fixture.server->setKernelReceiveBufferSize(4 << 20);
    fixture.server->setMaxReceiveBacklog(1);
    const auto received = [&] { return fixture.server->counters().datagramsReceived; };
    fixture.send(bytes(OSCMessage("/first")));
    ASSERT_TRUE(tcpTest::eventually([&] { return received() == 1; }));
    // Without privilege the kernel caps the buffer well below what a big burst needs.
    const int count = ::geteuid() == 0 ? 2000 : 200;
    std::vector<std::string> expected{"/first"};
    for (int i = 0; i < count; ++i) {
        if (i == count / 2) {
            fixture.send({'/', 0, 0});
        }
        expected.push_back("/n/" + std::to_string(i));
        fixture.send(bytes(OSCMessage(expected.back())));
    }
    EXPECT_FALSE(tcpTest::eventually([&] { return received() > 1; }, 300ms));
    ASSERT_TRUE(fixture.waitFor(count + 1));
    EXPECT_EQ(fixture.addresses(), expected);
    EXPECT_FALSE(fixture.offQueue);
}

TEST(OSCServerMethods, RouteMatchingMessagesInTheSpacesOrderBesidesTheHandler) {
    Fixture fixture(OSCServer::TimeTagMode::ignore);
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
        mismatches.push_back(std::string(message.addressPattern.rawAddress()) + ": " +
                             error.what());
    });

    fixture.send(bytes(OSCMessage("/mixer/*")));
    fixture.send(bytes(OSCMessage("/mixer/typed", {12, 0.5f})));
    fixture.send(bytes(OSCMessage("/mixer/typed", {std::string("no")})));
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
    fixture.send(bytes(OSCMessage("/mixer/x")));
    ASSERT_TRUE(fixture.main->waitForWork(5s));
    EXPECT_TRUE(server.removeMethod(x));
    EXPECT_FALSE(server.removeMethod(x));
    EXPECT_TRUE(server.removeMethod("/mixer/y"));
    EXPECT_FALSE(server.removeMethod("/mixer/nothing"));
    ASSERT_TRUE(fixture.waitFor(4));
    EXPECT_EQ(calls, (std::vector<std::string>{"x /mixer/x"}));
    fixture.send(bytes(OSCMessage("/mixer/*")));
    ASSERT_TRUE(fixture.waitFor(5));
    EXPECT_EQ(calls.size(), 1u) << "removed methods are no longer routed to";
}

TEST(OSCServerMethods, CountsWhatArrivesAndHandsEveryDroppedDatagramToTheHook) {
    Fixture fixture(OSCServer::TimeTagMode::osc1_0);
    auto& server = *fixture.server;
    struct Dropped {
        std::vector<std::uint8_t> datagram;
        OSCServer::DropReason reason;
        std::string error;
        std::uint16_t senderPort;
        bool operator==(const Dropped&) const = default;
    };
    std::vector<Dropped> dropped;
    server.setDropHandler([&](std::span<const std::uint8_t> datagram, const SocketAddress& from,
                              OSCServer::DropReason reason, const std::string& error) {
        dropped.push_back({{datagram.begin(), datagram.end()}, reason, error, from.port()});
    });
    server.setScheduledLimit({1, 1 << 20});

    const std::vector<std::uint8_t> hello = {'h', 'e', 'l', 'l', 'o'};
    const std::vector<std::uint8_t> shortInt = {'/', 'x', 0, 0, ',', 'i', 0, 0};
    const auto farAway = OSCTimeTag::fromDate(std::chrono::system_clock::now() + 24h);
    const auto twoLater = bytes(OSCBundle(farAway, {OSCMessage("/a"), OSCMessage("/b")}));
    const auto utf8 = OSCMessage("/u", {std::string("w\xC3\xB6rld")}).rawData(OSCTextPolicy::utf8);
    fixture.send(hello);
    fixture.send(shortInt);
    fixture.send(twoLater);  // two waiting messages, the limit is one
    fixture.send(utf8);      // the default text policy is ascii
    fixture.send(bytes(OSCMessage("/ok")));
    ASSERT_TRUE(fixture.main->drainUntil(
        [&] { return dropped.size() == 4 && !fixture.deliveries.empty(); }, 5s));
    using Reason = OSCServer::DropReason;
    const std::vector<Dropped> expected = {
        {hello, Reason::notOSC, "", fixture.sender.port()},
        {shortInt, Reason::malformed, "Not enough bytes while reading Int32 data chunk.",
         fixture.sender.port()},
        {twoLater, Reason::overScheduledLimit, dropped[2].error, fixture.sender.port()},
        {utf8, Reason::malformed, dropped[3].error, fixture.sender.port()}};
    EXPECT_EQ(dropped, expected);
    EXPECT_TRUE(dropped[3].error.starts_with("Failed to form valid ASCII string "))
        << dropped[3].error;

    // received, delivered; dropped as not OSC, malformed, over the limit, unexpected, inconsistent
    const auto counted = server.counters();
    EXPECT_EQ(std::vector<std::uint64_t>(
                  {counted.datagramsReceived, counted.messagesDelivered, counted.droppedNotOSC,
                   counted.droppedMalformed, counted.droppedOverScheduledLimit,
                   counted.droppedUnexpectedType, counted.droppedInternalInconsistency}),
              std::vector<std::uint64_t>({5, 1, 1, 2, 1, 0, 0}));

    // Without a hook the counting goes on, silently. Under utf8 the UTF-8 string is taken.
    server.setDropHandler(nullptr);
    server.setTextPolicy(OSCTextPolicy::utf8);
    fixture.send(hello);
    fixture.send(utf8);
    ASSERT_TRUE(fixture.waitFor(2));
    EXPECT_EQ(fixture.addresses().back(), "/u");
    EXPECT_EQ(server.counters().droppedNotOSC, 2u);
    EXPECT_EQ(dropped.size(), 4u);
}
