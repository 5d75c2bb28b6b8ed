#include "osc/transport/OSCClient.hpp"

#include <algorithm>
#include <stdexcept>

#include "osc/codec/OSCBundle.hpp"
#include "osc/codec/OSCError.hpp"
#include "osc/dispatch/ManualQueue.hpp"
#include "tests/UdpPeer.hpp"

using namespace kavrin;
using namespace std::chrono_literals;
using Datagram = std::vector<std::uint8_t>;

// Each packet goes out as exactly one datagram holding its encoding; only an encoding error or a
// missing target is the caller's to hear of, and neither a failed lookup nor a refused packet
// stops the client.
TEST(OSCClient, SendsEachPacketAsOneDatagramAndThrowsOnlyEncodingErrors) {
    test::UdpPeer receiver;
    OSCClient client;
    client.send(OSCMessage("/eos/ping"), "127.0.0.1", receiver.port());
    const Datagram ping = {
        '/', 'e', 'o', 's', '/', 'p', 'i', 'n', 'g', 0, 0, 0,  // address, padded to 12
        ',', 0,   0,   0,                                      // empty type tag string
    };
    EXPECT_EQ(receiver.receive(5s), ping);

    // Bundles go out the same way, and "localhost" is resolved by the socket.
    const OSCBundle bundle(OSCTimeTag::immediate(), {OSCMessage("/a"), OSCMessage("/b")});
    client.send(bundle, "localhost", receiver.port());
    EXPECT_EQ(receiver.receive(5s), bundle.rawData());

    EXPECT_NO_THROW(client.send(OSCMessage("/lost"), "no-such-host.invalid", receiver.port()));
    OSCBundle tooDeep(OSCTimeTag::immediate());
    for (int depth = 0; depth <= OSCBundle::maximumDepth + 1; ++depth) {
        tooDeep = OSCBundle(OSCTimeTag::immediate(), {std::move(tooDeep)});
    }
    EXPECT_THROW(client.send(tooDeep, "127.0.0.1", receiver.port()), OSCEncodeError);
    client.send(OSCMessage("/after"), "127.0.0.1", receiver.port());
    EXPECT_EQ(receiver.receive(5s), OSCMessage("/after").rawData());
    EXPECT_FALSE(receiver.receive(100ms)) << "more than one datagram";
    OSCClient plain;
    EXPECT_THROW(plain.send(OSCMessage("/nowhere")), std::logic_error) << "no target";

    // A client for one target sends there; failures come with their destination, on the queue
    // given, and what went out reports nothing.
    OSCClient fixed("127.0.0.1", receiver.port());
    fixed.send(OSCMessage("/fixed"));
    EXPECT_EQ(receiver.receive(5s), OSCMessage("/fixed").rawData());
    auto queue = std::make_shared<ManualQueue>();
    std::vector<std::string> failures;
    OSCClient reporting(
        "no-such-host.invalid", 9,
        [&](const std::string& host, std::uint16_t port, const UdpSocketError& error) {
            EXPECT_TRUE(queue->isCurrent());
            failures.push_back(host + ":" + std::to_string(port) + " " + error.domain());
        },
        queue);
    reporting.send(OSCMessage("/lost"));
    reporting.send(OSCMessage("/fine"), "127.0.0.1", receiver.port());
    reporting.send(OSCMessage("/lost/too"));
    ASSERT_TRUE(queue->drainUntil([&] { return failures.size() == 2; }, 10s));
    EXPECT_EQ(failures, std::vector<std::string>(2, "no-such-host.invalid:9 " +
                                                        std::string(UdpSocketError::netDBDomain)));
    EXPECT_EQ(receiver.receive(5s), OSCMessage("/fine").rawData());
    EXPECT_FALSE(queue->drainUntil([&] { return failures.size() > 2; }, 200ms));
}

TEST(OSCClient, AClientReleasedRightAfterSendingStillDelivers) {
    // Resolution is asynchronous even for numeric hosts: a release that closed the socket at
    // once lost what was still queued.
    test::UdpPeer receiver;
    std::vector<Datagram> expected, received;
    for (int i = 0; i < 10; ++i) {
        OSCClient client;
        const OSCMessage first("/released/" + std::to_string(i) + "/a");
        const OSCMessage second("/released/" + std::to_string(i) + "/b");
        client.send(first, i % 2 == 0 ? "127.0.0.1" : "localhost", receiver.port());
        client.send(second, "127.0.0.1", receiver.port());
        expected.push_back(first.rawData());
        expected.push_back(second.rawData());
    }
    while (received.size() < expected.size()) {
        const auto datagram = receiver.receive(5s);
        ASSERT_TRUE(datagram) << received.size() << " of " << expected.size() << " arrived";
        received.push_back(*datagram);
    }
    std::sort(received.begin(), received.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(received, expected);
}
