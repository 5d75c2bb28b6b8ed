#include <algorithm>
#include <future>
#include <map>

#include "../transport/TcpTestSupport.hpp"
#include "../transport/TestCertificates.hpp"
#include "osc/dispatch/SerialQueue.hpp"
#include "osc/stream/OSCStreamClient.hpp"
#include "osc/stream/OSCStreamServer.hpp"

// The stream server and client against each other and against bare BSD peers on loopback.

namespace kavrin {
namespace {

using namespace tcpTest;
using Connection = std::shared_ptr<OSCStreamConnection>;

// Everything a server or client reports, recorded on a serial dispatch queue; tests wait on it
// with a bound. Its handlers hold it, so that it outlives every report in flight.
class Recorder : public Recording, public std::enable_shared_from_this<Recorder> {
  public:
    struct Received {
        std::string address;
        OSCValueList values;
        OSCTimeTag timeTag;
        Connection from;
        Clock::time_point at;
    };
    struct Closed {
        Connection connection;
        std::optional<TcpSocketError> error;
    };

    Recorder() : Recorder(SerialQueue::create("test.dispatch")) {}
    explicit Recorder(std::shared_ptr<SerialQueue> queue) : Recording(queue), queue(queue) {}

    std::shared_ptr<SerialQueue> queue;

    OSCStreamHandler handler() {
        return [this, self = shared_from_this()](
                   const OSCMessage& message, const OSCTimeTag& timeTag, const Connection& from) {
            record([&] {
                received.push_back({std::string(message.addressPattern.rawAddress()), message.values, timeTag,
                                    from, Clock::now()});
            });
            if (onMessage) onMessage(message, from);
        };
    }
    void watch(OSCStreamServer& server) {
        server.setOpenHandler([this, self = shared_from_this()](const Connection& c) {
            record([&] { opened.push_back(c); });
        });
        server.setCloseHandler([this, self = shared_from_this()](
                                   const Connection& c, const std::optional<TcpSocketError>& e) {
            record([&] { closed.push_back({c, e}); });
        });
    }
    void watch(OSCStreamClient& client) {
        client.setStateHandler(
            [this, self = shared_from_this()](OSCStreamClient::State state,
                                              const std::optional<TcpSocketError>& error) {
                record([&] { states.emplace_back(state, error); });
            });
    }

    std::function<void(const OSCMessage&, const Connection&)> onMessage;
    std::vector<Received> received;
    std::vector<Connection> opened;
    std::vector<Closed> closed;
    std::vector<std::pair<OSCStreamClient::State, std::optional<TcpSocketError>>> states;
};

OSCMessage message(const std::string& address, std::int32_t value) {
    return OSCMessage(address, {OSCValue(value)});
}

std::shared_ptr<OSCStreamServer> startServer(
    const std::shared_ptr<Recorder>& recorder, OSCStreamSettings settings,
    OSCStreamServer::TimeTagMode mode = OSCStreamServer::TimeTagMode::ignore,
    std::uint16_t port = 0) {
    auto server = OSCStreamServer::create(port, recorder->queue, mode, settings, recorder->handler());
    recorder->watch(*server);
    server->start();
    return server;
}

// A console answers on the connection a message came in on, in either framing, also over TLS,
// where the client checks the server's chain and name. Strings keep their UTF-8 under the utf8
// text policy (taken here with SLIP) and are made ASCII under the default.
TEST(OSCStream, MessagesAndBundlesGoBothWaysOnEachConnectionInEitherFramingAndOverTls) {
    const auto& certificates = TestCertificates::shared();
    for (const auto& [framing, tls] : {std::pair{OSCFraming::lengthPrefixed, false},
                                       {OSCFraming::slip, false},
                                       {OSCFraming::lengthPrefixed, true}}) {
        SCOPED_TRACE(framing == OSCFraming::slip ? "SLIP, utf8" : tls ? "TLS" : "length-prefixed");
        OSCStreamSettings settings;
        settings.framing = framing;
        if (framing == OSCFraming::slip) settings.textPolicy = OSCTextPolicy::utf8;
        if (tls) {
            settings.tls = TlsSettings{};
            settings.tls->certificateChainFile = certificates.path("server.pem");
            settings.tls->privateKeyFile = certificates.path("server.key");
            settings.tls->caFile = certificates.path("ca.pem");
        }
        auto atServer = std::make_shared<Recorder>();
        atServer->onMessage = [](const OSCMessage& m, const Connection& from) {
            from->send(OSCMessage("/reply" + std::string(m.addressPattern.rawAddress()), m.values));
        };
        auto server = startServer(atServer, settings);
        ASSERT_NE(server->boundPort(), 0);

        std::vector<std::shared_ptr<Recorder>> atClients;
        std::vector<std::shared_ptr<OSCStreamClient>> clients;
        for (std::size_t c = 0; c < 2; ++c) {
            atClients.push_back(std::make_shared<Recorder>());
            clients.push_back(OSCStreamClient::create("localhost", server->boundPort(),
                                                      atClients[c]->queue, settings,
                                                      atClients[c]->handler()));
            clients[c]->connect();
        }
        for (std::int32_t i = 0; i < 100; ++i) {
            // Sent at once: those sent before the connection is up wait for it.
            for (std::size_t c = 0; c < 2; ++c) {
                ASSERT_TRUE(clients[c]->send(message("/c" + std::to_string(c), i)));
            }
        }
        // 0xC0 and 0xDB in the data: SLIP escapes them.
        OSCBundle bundle(OSCTimeTag::immediate(),
                         {OSCMessage("/b/0", {OSCValue(std::int32_t(0xC0DBC0))}),
                          OSCMessage("/b/1", {OSCValue(OSCBlob{0xDB, 0xDC, 0xC0}),
                                              OSCValue(std::string("w\xC3\xB6rld"))})});
        ASSERT_TRUE(clients[0]->send(bundle));

        ASSERT_TRUE(atServer->waitFor([&] { return atServer->received.size() == 202; }))
            << atServer->read([&] { return atServer->received.size(); });
        for (std::size_t c = 0; c < 2; ++c) {
            ASSERT_TRUE(atClients[c]->waitFor(
                [&] { return atClients[c]->received.size() == 100u + (c == 0 ? 2 : 0); }));
        }
        atServer->read([&] {
            std::map<std::string, std::int32_t> next;
            std::map<std::string, Connection> connectionOf;
            for (const auto& r : atServer->received) {
                const std::string sender = r.address.substr(0, 3);
                if (sender == "/b/") continue;
                EXPECT_EQ(r.values.at(0), OSCValue(next[sender]++)) << r.address;
                // Every message of one client comes on one connection, and each from its own.
                auto [at, added] = connectionOf.emplace(sender, r.from);
                EXPECT_EQ(at->second, r.from);
            }
            ASSERT_EQ(connectionOf.size(), 2u);
            EXPECT_NE(connectionOf["/c0"], connectionOf["/c1"]);
            EXPECT_EQ(connectionOf["/c0"]->isSecure(), tls);
            EXPECT_EQ(connectionOf["/c0"]->peerPort(),
                      clients[0]->connection()->localAddress().port());
            // The bundle's messages come after the client's others, one after the other.
            const auto b0 = std::find_if(atServer->received.begin(), atServer->received.end(),
                                         [](const auto& r) { return r.address == "/b/0"; });
            ASSERT_NE(b0, atServer->received.end());
            ASSERT_NE(b0 + 1, atServer->received.end());
            EXPECT_EQ(b0[1].address, "/b/1");
            EXPECT_EQ(b0[1].values.at(0), OSCValue(OSCBlob{0xDB, 0xDC, 0xC0}));
            EXPECT_EQ(b0[1].from, connectionOf["/c0"]);
            EXPECT_EQ(next["/c0"], 100);
        });
        atClients[0]->read([&] {
            EXPECT_EQ(atClients[0]->received[0].address, "/reply/c0");
            EXPECT_EQ(atClients[0]->received.back().address, "/reply/b/1");
            EXPECT_EQ(
                atClients[0]->received.back().values.at(1),
                OSCValue(std::string(framing == OSCFraming::slip ? "w\xC3\xB6rld" : "world")));
        });
        EXPECT_EQ(server->counters().messagesDelivered, 202u);
        EXPECT_EQ(server->counters().connectionsOpened, 2u);
        EXPECT_EQ(server->connections().size(), 2u);

        // A client that closes is heard by the server as a connection closed in order.
        clients[1]->close();
        ASSERT_TRUE(atServer->waitFor([&] { return atServer->closed.size() == 1; }));
        EXPECT_EQ(atServer->read([&] { return describe(atServer->closed[0].error); }), "no error");
        EXPECT_FALSE(clients[1]->send(message("/late", 0)));
    }
}

// A peer that breaks the framing, sends too much, stalls mid-packet or sends what is not OSC
// costs only its own connection (or only that packet), with a clear error, while a well-behaved
// peer is served throughout.
TEST(OSCStream, HostilePeersLoseOnlyTheirOwnConnection) {
    struct Case {
        const char* name;
        OSCFraming framing;
        Bytes stream;
        std::optional<std::string> error;  // none: the connection stays
    };
    const Bytes ok = framePacket(OSCFraming::lengthPrefixed, message("/ok", 1));
    Bytes slipFlood(3000, 'x');
    slipFlood.insert(slipFlood.begin(), 0xC0);
    Bytes notOSC = {0, 0, 0, 4, 'j', 'u', 'n', 'k'};
    Bytes badMessage = {0, 0, 0, 4, '/', 'b', 'a', 'd'};  // no terminating zero
    const std::vector<Case> cases = {
        {"size over the maximum",
         OSCFraming::lengthPrefixed,
         {0, 0, 0x13, 0x88},
         "Frame size 5000 exceeds the maximum of 1024 bytes."},
        {"stalls mid-frame",
         OSCFraming::lengthPrefixed,
         {0, 0, 0, 16, '/', 'a'},
         "Read operation timed out"},
        {"SLIP with no END", OSCFraming::slip, slipFlood,
         "SLIP frame exceeds the maximum of 1024 bytes without an END byte."},
        {"not OSC, then OSC", OSCFraming::lengthPrefixed, notOSC, std::nullopt},
        {"undecodable, then OSC", OSCFraming::lengthPrefixed, badMessage, std::nullopt},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        OSCStreamSettings settings;
        settings.framing = c.framing;
        settings.maximumFrame = 1024;
        settings.frameTimeout = 0.3;
        auto recorder = std::make_shared<Recorder>();
        auto server = startServer(recorder, settings);
        Fd good = rawConnect("127.0.0.1", server->boundPort());
        Fd hostile = rawConnect("::1", server->boundPort());
        ASSERT_TRUE(good && hostile);
        ASSERT_TRUE(sendAll(hostile.get(), c.stream));
        ASSERT_TRUE(sendAll(good.get(), framePacket(c.framing, message("/good", 1))));
        if (c.error) {
            ASSERT_TRUE(recorder->waitFor([&] { return recorder->closed.size() == 1; }));
            const auto closed = recorder->read([&] { return recorder->closed[0]; });
            EXPECT_EQ(closed.error.value_or(TcpSocketError()).description(), *c.error);
            EXPECT_TRUE(closed.connection->peerAddress().isIPv6());
            EXPECT_TRUE(seesEndOfStream(hostile.get()));
            EXPECT_EQ(server->counters().connectionsFailed, 1u);
        } else {
            // The connection reads on past the dropped packet.
            ASSERT_TRUE(sendAll(hostile.get(), ok));
            ASSERT_TRUE(recorder->waitFor([&] { return recorder->received.size() == 2; }));
            const auto counters = server->counters();
            EXPECT_EQ(counters.droppedNotOSC + counters.droppedMalformed, 1u);
        }
        ASSERT_TRUE(sendAll(good.get(), framePacket(c.framing, message("/good", 2))));
        ASSERT_TRUE(recorder->waitFor([&] {
            return std::count_if(recorder->received.begin(), recorder->received.end(),
                                 [](const auto& r) { return r.address == "/good"; }) == 2;
        }));
        EXPECT_EQ(server->connections().size(), c.error ? 1u : 2u);
    }
}

// Connections past the cap are closed at once, and one that rests past the idle time-out is
// closed with idleTimeout; the others are untouched.
TEST(OSCStream, ConnectionsPastTheCapOrIdleTooLongAreClosed) {
    auto recorder = std::make_shared<Recorder>();
    auto server = startServer(recorder, {});
    server->setMaxConnections(2);
    server->setIdleTimeout(0.5);
    Fd first = rawConnect("127.0.0.1", server->boundPort());
    Fd second = rawConnect("127.0.0.1", server->boundPort());
    ASSERT_TRUE(recorder->waitFor([&] { return recorder->opened.size() == 2; }));
    Fd third = rawConnect("127.0.0.1", server->boundPort());
    EXPECT_TRUE(seesEndOfStream(third.get(), 5s));
    // The second keeps talking, the first rests.
    for (int i = 0; i < 6; ++i) {
        ASSERT_TRUE(
            sendAll(second.get(), framePacket(OSCFraming::lengthPrefixed, message("/alive", i))));
        std::this_thread::sleep_for(150ms);  // the pace of a talking peer, not a wait
    }
    ASSERT_TRUE(recorder->waitFor([&] { return recorder->closed.size() == 1; }));
    EXPECT_EQ(recorder->read([&] { return describe(recorder->closed[0].error); }),
              describe(TcpSocketError::idleTimeoutError()));
    EXPECT_EQ(recorder->read([&] { return recorder->received.size(); }), 6u);
    EXPECT_TRUE(seesEndOfStream(first.get(), 5s));
    EXPECT_EQ(server->connections().size(), 1u);
}

// A connection whose messages wait for a busy dispatch queue reads no further than its backlog
// lets it; TCP holds the rest back, and it arrives in order once the queue catches up.
TEST(OSCStream, AConnectionStopsReadingWhileItsMessagesWaitForTheDispatchQueue) {
    auto recorder = std::make_shared<Recorder>();
    OSCStreamSettings settings;
    settings.maxReceiveBacklog = 1;
    auto server = startServer(recorder, settings);
    std::promise<void> caughtUp;
    recorder->queue->async([behind = caughtUp.get_future().share()] { behind.wait(); });
    Fd peer = rawConnect("127.0.0.1", server->boundPort());
    const auto packetsRead = [&] { return server->counters().packetsReceived; };
    ASSERT_TRUE(sendAll(peer.get(), framePacket(OSCFraming::lengthPrefixed, message("/n", 1))));
    ASSERT_TRUE(eventually([&] { return packetsRead() == 1; }));
    for (int i = 2; i <= 3; ++i) {
        ASSERT_TRUE(sendAll(peer.get(), framePacket(OSCFraming::lengthPrefixed, message("/n", i))));
    }
    EXPECT_FALSE(eventually([&] { return packetsRead() > 1; }, 300ms));
    caughtUp.set_value();
    ASSERT_TRUE(recorder->waitFor([&] { return recorder->received.size() == 3; }));
    recorder->read([&] {
        for (int i = 0; i < 3; ++i) EXPECT_EQ(recorder->received[i].values[0], OSCValue(i + 1));
    });
}

// A bundle tagged ahead waits for its time in osc1_0 mode, its messages in order and together.
// The view handler sees the bundle's messages at once, before any delivery.
TEST(OSCStream, AFutureBundleWaitsForItsTimeWithItsMessagesInOrder) {
    auto recorder = std::make_shared<Recorder>();
    auto server = startServer(recorder, {}, OSCStreamServer::TimeTagMode::osc1_0);
    test::Log<std::string> viewed(nullptr);
    server->setViewHandler([&](const OSCMessageView& view, const OSCTimeTag&, const Connection&) {
        viewed.add(std::string(view.address()));
    });
    Fd peer = rawConnect("127.0.0.1", server->boundPort());
    OSCBundle::Elements elements;
    for (std::int32_t i = 0; i < 8; ++i) elements.emplace_back(message("/m", i));
    const auto sent = Clock::now();
    const auto due = std::chrono::system_clock::now() + 300ms;
    ASSERT_TRUE(sendAll(peer.get(),
                        framePacket(OSCFraming::lengthPrefixed,
                                    OSCBundle(OSCTimeTag::fromDate(due), std::move(elements)))));
    ASSERT_TRUE(sendAll(peer.get(), framePacket(OSCFraming::lengthPrefixed, message("/now", 0))));
    ASSERT_TRUE(recorder->waitFor([&] { return recorder->received.size() == 9; }));
    recorder->read([&] {
        EXPECT_EQ(recorder->received[0].address, "/now");
        for (std::int32_t i = 0; i < 8; ++i) {
            EXPECT_EQ(recorder->received[1 + i].values.at(0), OSCValue(i));
            EXPECT_GE(recorder->received[1 + i].at - sent, 250ms);
        }
    });
    std::vector<std::string> expected(8, "/m");
    expected.push_back("/now");
    EXPECT_EQ(viewed.entries(), expected);
    EXPECT_EQ(server->counters().messagesViewed, 9u);
}

// A client that does not trust the server's CA is refused with the reason, and sends no more.
TEST(OSCStreamTls, AClientThatDoesNotTrustTheServersCAIsRefusedWithTheReason) {
    const auto& certificates = TestCertificates::shared();
    OSCStreamSettings settings;
    settings.tls = TlsSettings{};
    settings.tls->certificateChainFile = certificates.path("server.pem");
    settings.tls->privateKeyFile = certificates.path("server.key");
    auto atServer = std::make_shared<Recorder>();
    auto server = startServer(atServer, settings);
    settings.tls->caFile = certificates.path("other.pem");
    auto atClient = std::make_shared<Recorder>();
    auto client = OSCStreamClient::create("localhost", server->boundPort(), atClient->queue,
                                          settings, atClient->handler());
    atClient->watch(*client);
    client->setReconnect({.enabled = false});
    client->connect();
    ASSERT_TRUE(client->send(message("/ping", 7)));
    ASSERT_TRUE(atClient->waitFor([&] {
        return !atClient->states.empty() &&
               atClient->states.back().first == OSCStreamClient::State::closed;
    }));
    const auto error = atClient->read([&] { return atClient->states.back().second; });
    EXPECT_EQ(error.value_or(TcpSocketError()).code(), TcpSocketError::tls) << describe(error);
    EXPECT_NE(describe(error).find("unable to get local issuer certificate"), std::string::npos)
        << describe(error);
    EXPECT_FALSE(client->send(message("/ping", 8)));
    EXPECT_EQ(server->counters().connectionsOpened, 0u);
}

// A client whose server is not there waits, tries again later and later, and once the server
// is up sends what was sent meanwhile; after a drop it connects again.
TEST(OSCStream, TheClientReconnectsWithBackOffAndLosesNothingSentMeanwhile) {
    auto atServer = std::make_shared<Recorder>();
    std::uint16_t port = 0;
    {
        auto probe = startServer(atServer, {});
        port = probe->boundPort();
    }  // nothing listens there now
    auto atClient = std::make_shared<Recorder>();
    auto client =
        OSCStreamClient::create("127.0.0.1", port, atClient->queue, {}, atClient->handler());
    atClient->watch(*client);
    client->setReconnect({.enabled = true, .initialDelay = 0.05, .maximumDelay = 0.2});
    client->connect();
    ASSERT_TRUE(client->send(message("/early", 1)));
    // Refused at least three times.
    ASSERT_TRUE(atClient->waitFor([&] {
        return std::count_if(atClient->states.begin(), atClient->states.end(), [](const auto& s) {
                   return s.first == OSCStreamClient::State::waiting;
               }) >= 3;
    }));
    atClient->read([&] {
        const auto& refused = atClient->states[1];
        ASSERT_TRUE(refused.second);
        EXPECT_EQ(refused.second->code(), ECONNREFUSED) << describe(refused.second);
    });
    ASSERT_TRUE(client->send(message("/early", 2)));

    auto server = startServer(atServer, {}, OSCStreamServer::TimeTagMode::ignore, port);
    ASSERT_TRUE(atServer->waitFor([&] { return atServer->received.size() == 2; }));
    EXPECT_EQ(atServer->read([&] { return atServer->received[0].values.at(0); }), OSCValue(1));
    EXPECT_EQ(atServer->read([&] { return atServer->received[1].values.at(0); }), OSCValue(2));

    // The server drops every connection; the client comes back by itself.
    server->stop();
    server->start();
    ASSERT_TRUE(atServer->waitFor([&] { return atServer->opened.size() == 2; }));
    ASSERT_TRUE(atClient->waitFor(
        [&] { return atClient->states.back().first == OSCStreamClient::State::connected; }));
    ASSERT_TRUE(client->send(message("/again", 3)));
    ASSERT_TRUE(atServer->waitFor([&] { return atServer->received.size() == 3; }));
    client->close();
    ASSERT_TRUE(atClient->waitFor(
        [&] { return atClient->states.back().first == OSCStreamClient::State::closed; }));
}

}  // namespace
}  // namespace kavrin
