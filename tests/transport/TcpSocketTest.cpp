#include "osc/transport/TcpSocket.hpp"

#include <sys/resource.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <numeric>

#include "TcpTestSupport.hpp"
#include "osc/transport/detail/TcpReadRequest.hpp"

// TcpSocket against a bare BSD socket peer and against itself, over IPv4 and IPv6 loopback.

namespace kavrin {
namespace {

using namespace tcpTest;

const char* const kHosts[] = {"127.0.0.1", "::1"};

std::size_t openDescriptors() {
    return static_cast<std::size_t>(
        std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                      std::filesystem::directory_iterator()));
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

TEST(TcpSocketConnect, BadCallsFailAtOnceWithoutAReport) {
    auto lonely = TcpSocket::create();
    Endpoint e;
    TcpSocket& s = *e.socket;
    using enum TcpSocketError::Code;
    const std::pair<std::function<bool(TcpSocketError*)>, int> calls[] = {
        {[&](auto error) { return lonely->connectToHost("127.0.0.1", 9, -1.0, error); }, badConfig},
        {[&](auto error) { return s.connectToHost("", 9, -1.0, error); }, badParam},
        {[&](auto error) { return s.connectToAddress(SocketAddress(), -1.0, error); }, badParam},
        {[&](auto error) {
             return s.connectToHost("127.0.0.1", 9, std::string("no-such-interface0"), -1.0, error);
         },
         badParam},
        {[&](auto error) { return s.readExactly(0, -1.0, 1, error); }, badParam},
        {[&](auto error) { return s.readAvailable(0, -1.0, 1, error); }, badParam},
        {[&](auto error) { return s.readToDelimiter({}, 10, -1.0, 1, error); }, badParam},
        {[&](auto error) { return s.readToDelimiter(bytes("\r\n"), 1, -1.0, 1, error); }, badParam},
        {[&](auto error) { return s.startTLS(TlsSettings{}, error); }, badConfig},
    };
    for (const auto& [call, code] : calls) {
        TcpSocketError error;
        EXPECT_FALSE(call(&error));
        EXPECT_EQ(error.code(), code) << describe(error);
    }
    EXPECT_EQ(e.recorder->read([&] { return e.recorder->disconnects.size(); }), 0u);
    // A resolver's bad-param error becomes the socket's own.
    EXPECT_EQ(describe(TcpSocketError(SocketError::unusableParam("x"))),
              "TcpSocketErrorDomain " + std::to_string(badParam) + ": x");
}

// A closed port refuses with the system's text; a listener that never accepts and whose queue
// is full drops new handshakes, so the connect neither succeeds nor fails until the time-out
// ends it. Either way, one disconnect and no connect.
TEST(TcpSocketConnect, RefusedOrTimedOutConnectsEndWithTheirError) {
    struct Case {
        std::string host;
        bool listening;
        std::string error;
    };
    const std::string refused = "NSPOSIXErrorDomain " + std::to_string(ECONNREFUSED) + ": " +
                                std::strerror(ECONNREFUSED) + " (Error in connect() function)";
    const std::string timedOut = "TcpSocketErrorDomain 3: Attempt to connect to host timed out";
    const Case cases[] = {
        {"127.0.0.1", false, refused}, {"::1", false, refused}, {"localhost", false, refused},
        {"127.0.0.1", true, timedOut}, {"::1", true, timedOut},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.host + " " + c.error);
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
        EXPECT_EQ(e.recorder->disconnectError(e.socket.get()), c.error);
        EXPECT_TRUE(e.recorder->read([&] { return e.recorder->connected.empty(); }));
        EXPECT_EQ(e.recorder->disconnectsOf(e.socket.get()), 1u);
    }
}

// Each bound ends the connection with its own error: a delimiter past the maximum, a read or a
// write past its time-out; a write past the queue's bound is refused at once.
TEST(TcpSocketRead, BoundsEndTheConnectionWithTheirError) {
    {
        SCOPED_TRACE("delimiter past the maximum");
        ClientAndBarePeer c("127.0.0.1");
        ASSERT_TRUE(c.connected) << c.connectError;
        Recorder& r = *c.client.recorder;
        // Delimiter ending exactly at the maximum: allowed. One byte later: too long. Sent whole
        // before the reads, so that the second finds its delimiter past the maximum, rather than
        // the maximum reached without one.
        Bytes frames(63, 'a');
        frames.push_back(0xC0);
        frames.insert(frames.end(), 64, 'b');
        frames.push_back(0xC0);
        ASSERT_TRUE(sendAll(c.peer.get(), frames));
        ASSERT_TRUE(c.client.socket->readToDelimiter({0xC0}, 64, -1.0, 1));
        ASSERT_TRUE(c.client.socket->readToDelimiter({0xC0}, 64, -1.0, 2));
        EXPECT_EQ(r.disconnectError(c.client.socket.get()),
                  "TcpSocketErrorDomain 6: Read operation reached set maximum length");
        EXPECT_EQ(r.read([&] { return r.reads.size(); }), 1u);
        EXPECT_TRUE(seesEndOfStream(c.peer.get()));
    }
    {
        SCOPED_TRACE("read time-out");
        ClientAndBarePeer c("::1");
        ASSERT_TRUE(c.connected) << c.connectError;
        ASSERT_TRUE(c.client.socket->readExactly(10, 0.2, 1));
        ASSERT_TRUE(sendAll(c.peer.get(), bytes("12345")));  // not enough
        EXPECT_EQ(c.client.recorder->disconnectError(c.client.socket.get()),
                  describe(TcpSocketError::readTimeoutError()));
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
        ASSERT_TRUE(c.client.socket->write(Bytes(64 << 20, 'x'), 0.5, 1, &error))
            << describe(error);
        EXPECT_FALSE(c.client.socket->write(Bytes(1, 'y'), -1.0, 2, &error));
        EXPECT_EQ(describe(error), describe(TcpSocketError::writeQueueFullError()));
        Recorder& r = *c.client.recorder;
        EXPECT_EQ(r.disconnectError(c.client.socket.get()),
                  describe(TcpSocketError::writeTimeoutError()));
        EXPECT_GT(r.read([&] { return r.partialWriteBytes; }), 0u);
        EXPECT_TRUE(r.read([&] { return r.written.empty(); }));
        // What was refused or dropped no longer counts against the bound.
        EXPECT_TRUE(c.client.socket->write(Bytes(1, 'z'), -1.0, 3, &error)) << describe(error);
    }
}

// Connected over either family, from the interface's address of that family, the socket knows
// both ends. It reads to a length, to a delimiter and what is there, across fragments; writes in
// order, large ones in many partial sends; then the write side is shut while reading goes on,
// and the peer's close ends the read that waits with closedByPeer.
TEST(TcpSocketReadWrite, BothFamiliesInOrderAcrossFragmentsThenHalfCloses) {
    for (const std::string host : kHosts) {
        SCOPED_TRACE(host);
        ClientAndBarePeer c(host, "loopback");
        ASSERT_TRUE(c.connectOK) << c.connectError;
        ASSERT_TRUE(c.peer);
        ASSERT_TRUE(c.connected);
        TcpSocket& s = *c.client.socket;
        Recorder& r = *c.client.recorder;
        const auto reported = r.read([&] { return r.connected[0]; });
        EXPECT_EQ(reported.host + " " + s.connectedHost() + " " + s.localHost(),
                  host + " " + host + " " + host);
        EXPECT_EQ(reported.port, s.connectedPort());
        sockaddr_in6 peerSide{};
        socklen_t length = sizeof peerSide;
        ::getpeername(c.peer.get(), reinterpret_cast<sockaddr*>(&peerSide), &length);
        EXPECT_EQ(s.localPort(), SocketAddress(&peerSide, length).port());
        EXPECT_TRUE(s.setNoDelay(true));
        EXPECT_TRUE(s.setKeepAlive(true));
        TcpSocketError error;
        EXPECT_FALSE(s.connectToHost(host, 1, -1.0, &error)) << "a second connect";
        EXPECT_EQ(error.code(), TcpSocketError::badConfig) << describe(error);

        ASSERT_TRUE(s.readExactly(4, 5.0, 1));
        ASSERT_TRUE(s.readExactly(5, 5.0, 2));
        ASSERT_TRUE(s.readToDelimiter(bytes("\r\n"), 100, 5.0, 3));
        ASSERT_TRUE(s.readToDelimiter(bytes("\r\n--\r\n"), 100, 5.0, 4));
        ASSERT_TRUE(s.readToDelimiter({0xC0}, 100, 5.0, 5));  // a SLIP frame's end
        ASSERT_TRUE(s.readAvailable(1, 5.0, 6));
        ASSERT_TRUE(s.readAvailable(1000, 5.0, 7));
        // A delimiter split over pieces, partly matched more than once, then one with more after.
        for (const std::string& piece :
             {std::string("\0\0", 2), std::string("\0\5he", 4), std::string("llo"),
              std::string("line one\r"), std::string("\nline two\r"), std::string("\n-"),
              std::string("-\r"), std::string("\n\xDB\xDC\xC0"), std::string("rest")}) {
            ASSERT_TRUE(sendAll(c.peer.get(), bytes(piece)));
        }
        ASSERT_TRUE(r.waitForReads(7)) << r.read([&] { return r.reads.size(); }) << " reads";
        std::vector<std::string> reads;
        for (const auto& read : r.read([&] { return r.reads; })) {
            reads.push_back(std::to_string(read.tag) + " " + text(read.data));
        }
        EXPECT_EQ(reads, (std::vector<std::string>{std::string("1 \0\0\0\5", 6), "2 hello",
                                                   "3 line one\r\n", "4 line two\r\n--\r\n",
                                                   "5 \xDB\xDC\xC0", "6 r", "7 est"}));

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

        // Everything up to the end of the stream, which the shut write side makes.
        const Bytes expected = bytes("first " + text(large) + " last");
        Bytes received, buffer(65536);
        for (ssize_t n = 0; waitReadable(c.peer.get(), 10s) &&
                            (n = ::recv(c.peer.get(), buffer.data(), buffer.size(), 0)) > 0;) {
            received.insert(received.end(), buffer.begin(), buffer.begin() + n);
        }
        EXPECT_EQ(received.size(), expected.size());
        EXPECT_TRUE(received == expected);
        EXPECT_TRUE(seesEndOfStream(c.peer.get())) << "the write side was not shut";
        ASSERT_TRUE(r.waitFor([&] { return r.written.size() == 4; }));
        EXPECT_EQ(r.read([&] { return r.written; }), (std::vector<std::int64_t>{1, 2, 3, 4}));

        ASSERT_TRUE(sendAll(c.peer.get(), bytes("bye")));
        ASSERT_TRUE(r.waitForReads(8));
        EXPECT_EQ(text(r.read([&] { return r.reads[7].data; })), "bye");
        c.peer = Fd();
        EXPECT_EQ(r.disconnectError(&s), describe(TcpSocketError::closedByPeerError()));
        EXPECT_EQ(r.disconnectsOf(&s), 1u);
        EXPECT_TRUE(r.read([&] { return r.allOnDelegateQueue; }));
    }
}

// The side that disconnects after writing hears no error; the side reading then closedByPeer.
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
        Recorder& r = *client.recorder;
        ASSERT_TRUE(r.waitForReads(1));
        EXPECT_EQ(text(r.read([&] { return r.reads[0].data; })), "welcome\n");
        EXPECT_EQ(r.disconnectError(client.socket.get()),
                  describe(TcpSocketError::closedByPeerError()));
    }
    Recorder& served = *connections.recorder;
    ASSERT_TRUE(served.waitFor([&] { return served.disconnects.size() == 2; }));
    std::vector<std::string> serverSide;
    served.read([&] {
        for (const auto& read : served.reads) serverSide.push_back(text(read.data));
        for (const auto& d : served.disconnects) serverSide.push_back(describe(d.error));
    });
    EXPECT_EQ(serverSide, (std::vector<std::string>{"hello\n", "hello\n", "no error", "no error"}));
    EXPECT_TRUE(served.read([&] { return served.allOnDelegateQueue; }));
    Recorder& r = *server.recorder;
    EXPECT_TRUE(r.read([&] { return r.reads.empty(); }));
    const auto accepted = r.read([&] { return r.accepted; });
    ASSERT_EQ(accepted.size(), 2u);
    EXPECT_EQ(accepted[0]->isDisconnected(), true);
    EXPECT_EQ(server.socket->acceptedConnectionCount(), 0u);
    server.socket->disconnect();
    EXPECT_EQ(r.disconnectError(server.socket.get()), "no error");
    EXPECT_EQ(r.disconnectsOf(server.socket.get()), 1u);
    EXPECT_TRUE(r.read([&] { return r.allOnDelegateQueue; }));
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
    // How many clients see their stream end (or reset) by now.
    const auto ended = [&] {
        return std::count_if(clients.begin(), clients.end(),
                             [](const Fd& client) { return seesEndOfStream(client.get(), 0ms); });
    };
    EXPECT_TRUE(eventually([&] { return ended() >= std::ptrdiff_t{kConnections - kCap}; }, 10s))
        << ended() << " of " << kConnections << " closed";
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

// Room for a receive moves what remains to the front or into larger storage, never losing or
// reordering a byte: what no reading through a connection can be made to show for certain.
TEST(TcpReadRequest, InboundBufferKeepsWhatRemainsAcrossReceives) {
    InboundBuffer inbound;
    const auto arrive = [&](const std::string& text) {
        std::copy(text.begin(), text.end(), inbound.prepare(text.size()));
        inbound.commit(text.size());
    };
    arrive("0123456789");
    inbound.consume(7);
    arrive("abcdefghij");  // the three left move to the front of larger storage
    inbound.consume(4);
    std::copy_n("WXYZ", 4, inbound.prepare(4));  // fits once compacted
    inbound.commit(2);
    TcpReadRequest all(TcpReadRequest::Kind::available, 100, {}, -1.0, 0);
    std::size_t added = 0;
    EXPECT_EQ(all.take(inbound, &added), TcpReadRequest::Progress::done);
    EXPECT_EQ(text(all.buffer), "bcdefghijWX");
    EXPECT_TRUE(inbound.empty());
}

}  // namespace
}  // namespace kavrin
