#include "osc/transport/TcpSocket.hpp"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <numeric>
#include <thread>

#include "TcpTestSupport.hpp"

// TcpSocket against a bare BSD socket peer and against itself, over IPv4 and IPv6 loopback.

namespace kavrin {
namespace {

using namespace tcpTest;

const char* const kHosts[] = {"127.0.0.1", "::1"};

// For a condition nothing announces: checks it every few milliseconds, up to the bound.
bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds bound = 5s) {
    for (const auto deadline = Clock::now() + bound; !condition();
         std::this_thread::sleep_for(5ms)) {
        if (Clock::now() > deadline) return false;
    }
    return true;
}

std::size_t openDescriptors() {
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                                                  std::filesystem::directory_iterator()));
}

// How many of clients see their stream end, waiting up to the bound for expected of them.
std::size_t endedWithin(const std::vector<Fd>& clients, std::size_t expected,
                        std::chrono::milliseconds bound) {
    std::vector<bool> ended(clients.size());
    std::size_t count = 0;
    for (const auto deadline = Clock::now() + bound; count < expected && Clock::now() < deadline;) {
        std::vector<pollfd> entries;
        for (std::size_t i = 0; i < clients.size(); ++i) {
            entries.push_back({ended[i] ? -1 : clients[i].get(), POLLIN, 0});
        }
        if (::poll(entries.data(), entries.size(), 100) <= 0) continue;
        for (std::size_t i = 0; i < entries.size(); ++i) {
            std::uint8_t byte;
            if (entries[i].revents && ::recv(clients[i].get(), &byte, 1, MSG_DONTWAIT) <= 0) {
                ended[i] = true;
                ++count;
            }
        }
    }
    return count;
}

// Our socket connected to a bare peer: the peer's end, and the socket's report of it.
struct ClientAndBarePeer {
    explicit ClientAndBarePeer(const std::string& host,
                               const std::optional<std::string>& interface = std::nullopt) {
        std::uint16_t port = 0;
        listener = rawListen(host, &port);
        TcpSocketError error;
        connectOK = client.socket->connectToHost(host, port, interface, 5.0, &error);
        connectError = describe(error);
        peer = rawAccept(listener.get());
        connected = client.recorder->waitFor([&] { return !client.recorder->connected.empty(); });
    }

    Endpoint client;
    Fd listener;
    Fd peer;
    bool connectOK = false;
    std::string connectError;
    bool connected = false;
};

TEST(TcpSocketConnect, ConnectsOverBothFamiliesAndKnowsBothEnds) {
    for (const std::string host : kHosts) {
        SCOPED_TRACE(host);
        ClientAndBarePeer c(host, "loopback");  // from the interface's address of that family
        ASSERT_TRUE(c.connectOK) << c.connectError;
        ASSERT_TRUE(c.peer);
        ASSERT_TRUE(c.connected);
        const auto reported = c.client.recorder->read([&] { return c.client.recorder->connected[0]; });
        EXPECT_EQ(reported.host, host);
        EXPECT_EQ(reported.port, c.client.socket->connectedPort());
        EXPECT_EQ(c.client.socket->connectedHost(), host);
        EXPECT_EQ(c.client.socket->localHost(), host);
        sockaddr_in6 peerSide{};
        socklen_t length = sizeof peerSide;
        ::getpeername(c.peer.get(), reinterpret_cast<sockaddr*>(&peerSide), &length);
        EXPECT_EQ(c.client.socket->localPort(), SocketAddress(&peerSide, length).port());
        EXPECT_TRUE(c.client.socket->isConnected());
        EXPECT_FALSE(c.client.socket->isSecure());
        EXPECT_TRUE(c.client.socket->setNoDelay(true));
        EXPECT_TRUE(c.client.socket->setKeepAlive(true));

        // A second connect does not fit a connected socket.
        TcpSocketError error;
        EXPECT_FALSE(c.client.socket->connectToHost(host, 1, -1.0, &error));
        EXPECT_EQ(error.code(), TcpSocketError::badConfig) << describe(error);

        c.client.socket->disconnect();
        EXPECT_TRUE(c.client.socket->isDisconnected());
        const auto d = c.client.recorder->waitForDisconnect(c.client.socket.get());
        ASSERT_TRUE(d);
        EXPECT_FALSE(d->error) << describe(d->error);
        EXPECT_TRUE(seesEndOfStream(c.peer.get()));
        EXPECT_TRUE(c.client.recorder->read([&] { return c.client.recorder->allOnDelegateQueue; }));
    }
}

TEST(TcpSocketConnect, BadCallsFailAtOnceWithoutAReport) {
    TcpSocketError error;
    auto lonely = TcpSocket::create();
    EXPECT_FALSE(lonely->connectToHost("127.0.0.1", 9, -1.0, &error));
    EXPECT_EQ(error.code(), TcpSocketError::badConfig) << describe(error);

    Endpoint e;
    EXPECT_FALSE(e.socket->connectToHost("", 9, -1.0, &error));
    EXPECT_EQ(error.code(), TcpSocketError::badParam) << describe(error);
    EXPECT_FALSE(e.socket->connectToAddress(SocketAddress(), -1.0, &error));
    EXPECT_EQ(error.code(), TcpSocketError::badParam) << describe(error);
    EXPECT_FALSE(e.socket->connectToHost("127.0.0.1", 9, std::string("no-such-interface0"), -1.0,
                                         &error));
    EXPECT_EQ(error.code(), TcpSocketError::badParam) << describe(error);
    EXPECT_FALSE(e.socket->readExactly(0, -1.0, 1, &error));
    EXPECT_FALSE(e.socket->readAvailable(0, -1.0, 1, &error));
    EXPECT_FALSE(e.socket->readToDelimiter({}, 10, -1.0, 1, &error));
    EXPECT_FALSE(e.socket->readToDelimiter(bytes("\r\n"), 1, -1.0, 1, &error));
    EXPECT_EQ(error.code(), TcpSocketError::badParam) << describe(error);
    EXPECT_FALSE(e.socket->startTLS(TlsSettings{}, &error));
    EXPECT_EQ(error.code(), TcpSocketError::badConfig) << describe(error);
    TlsSettings missing;
    missing.caFile = "/nonexistent/ca.pem";
    EXPECT_FALSE(e.socket->startTLS(missing, &error));
    EXPECT_EQ(error.code(), TcpSocketError::tls) << describe(error);
    EXPECT_EQ(e.recorder->read([&] { return e.recorder->disconnects.size(); }), 0u);
}

// A closed port refuses with the system's text; a listener that never accepts and whose queue
// is full drops new handshakes, so the connect neither succeeds nor fails until the time-out
// ends it. Either way, one disconnect and no connect.
TEST(TcpSocketConnect, RefusedOrTimedOutConnectsEndWithTheirError) {
    struct Case {
        std::string host;
        bool listening;
        std::string domain;
        int code;
        std::string description;
    };
    const std::string refused = std::strerror(ECONNREFUSED);
    const std::string timedOut = "Attempt to connect to host timed out";
    const Case cases[] = {
        {"127.0.0.1", false, "NSPOSIXErrorDomain", ECONNREFUSED, refused},
        {"::1", false, "NSPOSIXErrorDomain", ECONNREFUSED, refused},
        {"localhost", false, "NSPOSIXErrorDomain", ECONNREFUSED, refused},
        {"127.0.0.1", true, TcpSocketError::socketDomain, TcpSocketError::connectTimeout, timedOut},
        {"::1", true, TcpSocketError::socketDomain, TcpSocketError::connectTimeout, timedOut},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.host + " " + c.description);
        std::uint16_t port = 0;
        Fd listener = rawListen(c.host == "localhost" ? "127.0.0.1" : c.host, &port, 0);
        const SocketAddress address = SocketAddress::fromNumericHost(c.host, port);
        std::vector<Fd> fillers;
        for (int i = 0; c.listening && i < 4; ++i) {
            fillers.emplace_back(
                ::socket(address.family(), SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
            ::connect(fillers.back().get(), reinterpret_cast<const sockaddr*>(address.data()),
                      static_cast<socklen_t>(address.size()));
        }
        if (!c.listening) listener = Fd();  // closed: nothing listens on port now
        Endpoint e;
        TcpSocketError error;
        const double timeout = c.listening ? 0.3 : 5.0;
        ASSERT_TRUE(address.empty() || c.listening
                        ? e.socket->connectToHost(c.host, port, timeout, &error)
                        : e.socket->connectToAddress(address, timeout, &error))
            << describe(error);
        const auto d = e.recorder->waitForDisconnect(e.socket.get());
        ASSERT_TRUE(d);
        ASSERT_TRUE(d->error);
        EXPECT_EQ(d->error->domain(), c.domain) << describe(d->error);
        EXPECT_EQ(d->error->code(), c.code) << describe(d->error);
        EXPECT_EQ(d->error->description(), c.description);
        EXPECT_TRUE(e.recorder->read([&] { return e.recorder->connected.empty(); }));
        EXPECT_EQ(e.recorder->disconnectsOf(e.socket.get()), 1u);
    }
}

TEST(TcpSocketRead, ReadsToLengthAndToDelimiterAcrossFragments) {
    for (const std::string host : kHosts) {
        SCOPED_TRACE(host);
        ClientAndBarePeer c(host);
        ASSERT_TRUE(c.connected) << c.connectError;
        TcpSocket& s = *c.client.socket;
        ASSERT_TRUE(s.readExactly(4, 5.0, 1));
        ASSERT_TRUE(s.readExactly(5, 5.0, 2));
        ASSERT_TRUE(s.readToDelimiter(bytes("\r\n"), 100, 5.0, 3));
        ASSERT_TRUE(s.readToDelimiter(bytes("\r\n"), 100, 5.0, 4));
        ASSERT_TRUE(s.readToDelimiter({0xC0}, 100, 5.0, 5));  // a SLIP frame's end
        ASSERT_TRUE(s.readAvailable(1000, 5.0, 6));
        const std::vector<std::string> pieces = {std::string("\0\0", 2), std::string("\0\5he", 4),
                                                 "llo", "line one\r", "\nline two",
                                                 "\r\n\xDB\xDC\xC0", "rest"};
        for (const auto& piece : pieces) {
            ASSERT_TRUE(sendAll(c.peer.get(), bytes(piece)));
        }
        ASSERT_TRUE(c.client.recorder->waitFor([&] { return c.client.recorder->reads.size() == 6; }))
            << c.client.recorder->read([&] { return c.client.recorder->reads.size(); }) << " reads";
        const auto reads = c.client.recorder->read([&] { return c.client.recorder->reads; });
        const std::vector<std::string> expected = {std::string("\0\0\0\5", 4), "hello",
                                                   "line one\r\n", "line two\r\n",
                                                   "\xDB\xDC\xC0", "rest"};
        for (std::size_t i = 0; i < reads.size(); ++i) {
            EXPECT_EQ(reads[i].tag, static_cast<std::int64_t>(i + 1));
            EXPECT_EQ(text(reads[i].data), expected[i]) << "read " << i + 1;
        }
    }
}

// Each bound ends the connection with its own error: a delimiter past the maximum, a read or a
// write past its time-out; a write past the queue's bound is refused at once.
TEST(TcpSocketRead, BoundsEndTheConnectionWithTheirError) {
    {
        SCOPED_TRACE("delimiter past the maximum");
        ClientAndBarePeer c("127.0.0.1");
        ASSERT_TRUE(c.connected) << c.connectError;
        ASSERT_TRUE(c.client.socket->readToDelimiter({0xC0}, 64, -1.0, 1));
        // Delimiter ending exactly at the maximum: allowed. One byte later: too long.
        ASSERT_TRUE(sendAll(c.peer.get(), Bytes(63, 'a')));
        ASSERT_TRUE(sendAll(c.peer.get(), Bytes{0xC0}));
        ASSERT_TRUE(
            c.client.recorder->waitFor([&] { return c.client.recorder->reads.size() == 1; }));
        ASSERT_TRUE(c.client.socket->readToDelimiter({0xC0}, 64, -1.0, 2));
        ASSERT_TRUE(sendAll(c.peer.get(), Bytes(64, 'b')));
        ASSERT_TRUE(sendAll(c.peer.get(), Bytes{0xC0}));
        const auto d = c.client.recorder->waitForDisconnect(c.client.socket.get());
        ASSERT_TRUE(d);
        ASSERT_TRUE(d->error);
        EXPECT_EQ(d->error->code(), TcpSocketError::readMaxedOut) << describe(d->error);
        EXPECT_EQ(d->error->description(), "Read operation reached set maximum length");
        EXPECT_EQ(c.client.recorder->read([&] { return c.client.recorder->reads.size(); }), 1u);
        EXPECT_TRUE(seesEndOfStream(c.peer.get()));
    }
    {
        SCOPED_TRACE("read time-out");
        ClientAndBarePeer c("::1");
        ASSERT_TRUE(c.connected) << c.connectError;
        ASSERT_TRUE(c.client.socket->readExactly(10, 0.2, 1));
        ASSERT_TRUE(sendAll(c.peer.get(), bytes("12345")));  // not enough
        const auto d = c.client.recorder->waitForDisconnect(c.client.socket.get());
        ASSERT_TRUE(d);
        EXPECT_EQ(describe(d->error), describe(TcpSocketError::readTimeoutError()));
        EXPECT_EQ(c.client.recorder->read([&] { return c.client.recorder->partialReadBytes; }), 5u);
    }
    {
        SCOPED_TRACE("write time-out and queue bound");
        // The peer reads nothing: the system's buffers fill and the write waits until its
        // time-out. Only one write of any size goes into an empty queue; the next one that
        // would pass the bound is refused at once.
        ClientAndBarePeer c("127.0.0.1");
        ASSERT_TRUE(c.connected) << c.connectError;
        c.client.socket->setMaxWriteQueueLength(1 << 20);
        TcpSocketError error;
        ASSERT_TRUE(c.client.socket->write(Bytes(64 << 20, 'x'), 0.5, 1, &error)) << describe(error);
        EXPECT_FALSE(c.client.socket->write(Bytes(1, 'y'), -1.0, 2, &error));
        EXPECT_EQ(describe(error), describe(TcpSocketError::writeQueueFullError()));
        const auto d = c.client.recorder->waitForDisconnect(c.client.socket.get());
        ASSERT_TRUE(d);
        EXPECT_EQ(describe(d->error), describe(TcpSocketError::writeTimeoutError()));
        EXPECT_GT(c.client.recorder->read([&] { return c.client.recorder->partialWriteBytes; }), 0u);
        EXPECT_TRUE(c.client.recorder->read([&] { return c.client.recorder->written.empty(); }));
        // What was refused or dropped no longer counts against the bound.
        EXPECT_TRUE(c.client.socket->write(Bytes(1, 'z'), -1.0, 3, &error)) << describe(error);
    }
}

// Writes in order, large ones in many partial sends; then the write side is shut while reading
// goes on, and the peer's close ends the read that waits with closedByPeer.
TEST(TcpSocketWrite, WritesInOrderThenHalfCloses) {
    for (const std::string host : kHosts) {
        SCOPED_TRACE(host);
        ClientAndBarePeer c(host);
        ASSERT_TRUE(c.connected) << c.connectError;
        TcpSocket& s = *c.client.socket;
        Bytes large(8 << 20);
        std::iota(large.begin(), large.end(), std::uint8_t{0});
        ASSERT_TRUE(s.write(bytes("first "), -1.0, 1));
        ASSERT_TRUE(s.write({}, -1.0, 2));
        ASSERT_TRUE(s.write(large, 10.0, 3));
        ASSERT_TRUE(s.write(bytes(" last"), -1.0, 4));
        s.shutdownWrite();
        ASSERT_TRUE(s.write(bytes("dropped"), -1.0, 5));
        // Generous: the peer answers only after taking 8 MiB, slow under a sanitizer.
        ASSERT_TRUE(s.readExactly(3, 60.0, 10));
        ASSERT_TRUE(s.readExactly(1, 60.0, 11));

        const Bytes expected = bytes("first " + text(large) + " last");
        const Bytes received = recvUpTo(c.peer.get(), expected.size() + 100);
        EXPECT_EQ(received.size(), expected.size());
        EXPECT_TRUE(received == expected);
        EXPECT_TRUE(seesEndOfStream(c.peer.get())) << "the write side was not shut";
        ASSERT_TRUE(c.client.recorder->waitFor([&] { return c.client.recorder->written.size() == 4; }));
        EXPECT_EQ(c.client.recorder->read([&] { return c.client.recorder->written; }),
                  (std::vector<std::int64_t>{1, 2, 3, 4}));

        ASSERT_TRUE(sendAll(c.peer.get(), bytes("bye")));
        ASSERT_TRUE(c.client.recorder->waitFor([&] { return c.client.recorder->reads.size() == 1; }));
        EXPECT_EQ(text(c.client.recorder->read([&] { return c.client.recorder->reads[0].data; })),
                  "bye");
        c.peer = Fd();
        const auto d = c.client.recorder->waitForDisconnect(&s);
        ASSERT_TRUE(d);
        EXPECT_EQ(describe(d->error), describe(TcpSocketError::closedByPeerError()));
        EXPECT_EQ(c.client.recorder->disconnectsOf(&s), 1u);
    }
}

// Our listener serves both families on one port, handing its connections to a delegate of their
// own; our client talks to it both ways; the side that disconnects after writing hears no
// error, the side reading then hears closedByPeer.
TEST(TcpSocketAccept, ServesBothFamiliesOnOnePort) {
    Endpoint server;
    Endpoint connections;  // its socket stays unused: only its delegate serves
    server.recorder->onWillAccept = [&](TcpSocketDelegate::AcceptedConnection& setup) {
        setup.delegate = connections.recorder;
        setup.delegateQueue = connections.delegateQueue;
    };
    server.recorder->onAccept = [](const std::shared_ptr<TcpSocket>& accepted) {
        accepted->readToDelimiter(bytes("\n"), 1000, 5.0, 1);
        accepted->write(bytes("welcome\n"), 5.0, 2);
        accepted->disconnectAfterReadingAndWriting();
    };
    TcpSocketError error;
    ASSERT_TRUE(server.socket->acceptOnPort(0, &error)) << describe(error);
    EXPECT_TRUE(server.socket->isAccepting());
    const std::uint16_t port = server.socket->localPort();
    ASSERT_NE(port, 0);
    EXPECT_FALSE(Endpoint().socket->acceptOnPort(port, &error));
    EXPECT_EQ(error.code(), EADDRINUSE) << describe(error);

    for (const std::string host : kHosts) {
        SCOPED_TRACE(host);
        Endpoint client;
        ASSERT_TRUE(client.socket->connectToHost(host, port, 5.0, &error)) << describe(error);
        client.socket->write(bytes("hello\n"), 5.0, 7);
        client.socket->readToDelimiter(bytes("\n"), 1000, 5.0, 8);
        client.socket->readAvailable(1000, 5.0, 9);
        ASSERT_TRUE(client.recorder->waitFor([&] { return client.recorder->reads.size() == 1; }));
        EXPECT_EQ(text(client.recorder->read([&] { return client.recorder->reads[0].data; })),
                  "welcome\n");
        const auto d = client.recorder->waitForDisconnect(client.socket.get());
        ASSERT_TRUE(d);
        EXPECT_EQ(describe(d->error), describe(TcpSocketError::closedByPeerError()));
    }
    Recorder& served = *connections.recorder;
    ASSERT_TRUE(served.waitFor([&] { return served.disconnects.size() == 2; }));
    const auto serverSide = served.read([&] { return served.reads; });
    ASSERT_EQ(serverSide.size(), 2u);
    for (const auto& read : serverSide) {
        EXPECT_EQ(text(read.data), "hello\n");
    }
    for (const auto& d : served.read([&] { return served.disconnects; })) {
        EXPECT_FALSE(d.error) << describe(d.error);
    }
    EXPECT_TRUE(served.read([&] { return served.allOnDelegateQueue; }));
    EXPECT_TRUE(server.recorder->read([&] { return server.recorder->reads.empty(); }));
    const auto accepted = server.recorder->read([&] { return server.recorder->accepted; });
    ASSERT_EQ(accepted.size(), 2u);
    EXPECT_EQ(accepted[0]->isDisconnected(), true);
    EXPECT_EQ(server.socket->acceptedConnectionCount(), 0u);
    server.socket->disconnect();
    ASSERT_TRUE(server.recorder->waitFor([&] { return server.recorder->disconnects.size() == 1; }));
    EXPECT_FALSE(server.recorder->read([&] { return server.recorder->disconnects[0].error; }));
    EXPECT_TRUE(server.recorder->read([&] { return server.recorder->allOnDelegateQueue; }));
}

// A thousand connections at once: the cap's worth are accepted, every other one is closed at
// once, nothing leaks, and the listener serves new connections once places are free.
TEST(TcpSocketAccept, CapsOpenConnectionsAndKeepsServing) {
    constexpr std::size_t kConnections = 1000;
    constexpr std::size_t kCap = 100;
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    // Each client end, and for accepted ones the socket and its two readiness sources.
    const rlim_t needed = kConnections + 4 * kCap + 256;
    if (limit.rlim_cur < needed) {
        if (limit.rlim_max < needed) {
            GTEST_SKIP() << "the hard limit of open files is below " << needed;
        }
        limit.rlim_cur = needed;
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0) << std::strerror(errno);
    }
    // Counted once the queues' event loop, which opens descriptors of its own for the life of
    // the process, has started. A listener's descriptors close on its queue, before any query
    // made after the disconnect.
    {
        Endpoint warmUp;
        ASSERT_TRUE(warmUp.socket->acceptOnPort(0));
        warmUp.socket->disconnect();
        ASSERT_TRUE(warmUp.socket->isDisconnected());
    }
    const std::size_t descriptorsBefore = openDescriptors();
    Endpoint server;
    server.socket->setMaxAcceptedConnections(kCap);
    TcpSocketError error;
    ASSERT_TRUE(server.socket->acceptOnInterface(std::string("localhost"), 0, &error))
        << describe(error);
    const std::uint16_t port = server.socket->localPort();

    std::vector<Fd> clients;
    for (std::size_t i = 0; i < kConnections; ++i) {
        clients.push_back(rawConnect(i % 2 ? "::1" : "127.0.0.1", port));
        ASSERT_TRUE(clients.back()) << "connection " << i << ": " << std::strerror(errno);
    }
    ASSERT_TRUE(server.recorder->waitFor([&] { return server.recorder->accepted.size() == kCap; }));
    EXPECT_EQ(endedWithin(clients, kConnections - kCap, 10s), kConnections - kCap);
    EXPECT_EQ(server.recorder->read([&] { return server.recorder->accepted.size(); }), kCap);
    EXPECT_EQ(server.socket->acceptedConnectionCount(), kCap);

    // Dropping the accepted sockets closes them and frees their places.
    server.recorder->read([&] { server.recorder->accepted.clear(); });
    clients.clear();
    EXPECT_TRUE(eventually([&] { return server.socket->acceptedConnectionCount() == 0; }));
    Fd late = rawConnect("127.0.0.1", port);
    ASSERT_TRUE(late);
    ASSERT_TRUE(server.recorder->waitFor([&] { return server.recorder->accepted.size() == 1; }));
    EXPECT_FALSE(seesEndOfStream(late.get(), 100ms));
    EXPECT_TRUE(server.socket->isAccepting());

    // Every descriptor of the connections, their readiness sources and the listener is closed.
    server.recorder->read([&] { server.recorder->accepted.clear(); });
    late = Fd();
    server.socket->disconnect();
    EXPECT_TRUE(eventually([&] { return openDescriptors() == descriptorsBefore; }))
        << openDescriptors() << " descriptors open, " << descriptorsBefore << " before";
}

TEST(TcpSocketAccept, IdleConnectionsAreDisconnected) {
    Endpoint server;
    server.socket->setAcceptedIdleTimeout(0.4);
    server.recorder->onAccept = [](const std::shared_ptr<TcpSocket>& accepted) {
        for (int tag = 0; tag < 5; ++tag) {
            accepted->readExactly(1, -1.0, tag);
        }
    };
    TcpSocketError error;
    ASSERT_TRUE(server.socket->acceptOnPort(0, &error)) << describe(error);
    Fd client = rawConnect("::1", server.socket->localPort());
    ASSERT_TRUE(server.recorder->waitFor([&] { return server.recorder->accepted.size() == 1; }));
    TcpSocket* accepted = server.recorder->read([&] { return server.recorder->accepted[0].get(); });
    // Bytes keep it open past the time-out; silence then ends it.
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(sendAll(client.get(), bytes("x")));
        ASSERT_TRUE(server.recorder->waitFor([&] {
            return server.recorder->reads.size() == static_cast<std::size_t>(i + 1);
        }));
        ASSERT_FALSE(server.recorder->waitFor([&] { return !server.recorder->disconnects.empty(); },
                                              150ms));
    }
    const auto d = server.recorder->waitForDisconnect(accepted);
    ASSERT_TRUE(d);
    EXPECT_EQ(describe(d->error), describe(TcpSocketError::idleTimeoutError()));
    EXPECT_TRUE(seesEndOfStream(client.get()));
    EXPECT_EQ(server.socket->acceptedConnectionCount(), 0u);
}

}  // namespace
}  // namespace kavrin
