#include "osc/transport/UdpSocket.hpp"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <climits>
#include <cstring>
#include <functional>
#include <future>
#include <utility>

#include "TcpTestSupport.hpp"
#include "osc/dispatch/GlobalQueue.hpp"
#include "osc/dispatch/ManualQueue.hpp"
#include "osc/dispatch/SerialQueue.hpp"
#include "tests/UdpPeer.hpp"

namespace kavrin {
namespace {

using namespace std::chrono_literals;
using tcpTest::bytes;
using tcpTest::Bytes;
using tcpTest::text;
using Texts = std::vector<std::string>;
using Tags = std::vector<std::int64_t>;

// Records every report; tests wait on it with a bound.
class Recorder : public UdpSocketDelegate, public tcpTest::Recording {
  public:
    struct Datagram {
        Bytes data;
        SocketAddress from;
        std::any context;
    };

    explicit Recorder(std::shared_ptr<DispatchQueue> queue) : Recording(std::move(queue), 5s) {}

    void udpSocketDidConnectToAddress(UdpSocket&, const SocketAddress& address) override {
        record([&] { connected.push_back(address); });
    }
    void udpSocketDidNotConnect(UdpSocket&, const UdpSocketError& error) override {
        record([&] { notConnected.push_back(error); });
    }
    void udpSocketDidSendDataWithTag(UdpSocket&, std::int64_t tag) override {
        record([&] { sent.push_back(tag); });
    }
    void udpSocketDidNotSendDataWithTag(UdpSocket&, std::int64_t tag,
                                        const UdpSocketError& error) override {
        record([&] { notSent.emplace_back(tag, error); });
    }
    void udpSocketDidReceiveData(UdpSocket&, Bytes data, const SocketAddress& address,
                                 const std::any& context) override {
        record([&] { received.push_back({std::move(data), address, context}); });
    }
    void udpSocketDidClose(UdpSocket&, const std::optional<UdpSocketError>& error) override {
        record([&] { closed.push_back(error); });
    }

    std::vector<SocketAddress> connected;
    std::vector<UdpSocketError> notConnected;
    std::vector<std::int64_t> sent;
    std::vector<std::pair<std::int64_t, UdpSocketError>> notSent;
    std::vector<Datagram> received;
    std::vector<std::optional<UdpSocketError>> closed;
};

// A socket with a recording delegate on a serial delegate queue of its own.
struct Peer {
    explicit Peer(std::shared_ptr<DispatchQueue> queue = SerialQueue::create("test.delegate"))
        : delegateQueue(queue),
          recorder(std::make_shared<Recorder>(queue)),
          socket(UdpSocket::create(recorder, queue)) {}

    // Binds both families, or IPv4 only, to a kernel-chosen port and starts receiving.
    void listen(bool ipv6 = true) {
        UdpSocketError error;
        socket->setIPv6Enabled(ipv6);
        ASSERT_TRUE(socket->bindToPort(0, &error)) << error.description();
        ASSERT_TRUE(socket->beginReceiving(&error)) << error.description();
    }

    bool waitForReceived(std::size_t count, std::optional<std::chrono::milliseconds> bound = {}) {
        return recorder->waitFor([&] { return recorder->received.size() >= count; }, bound);
    }
    // Until at least this many sends are reported done and failed.
    bool waitForSends(std::size_t sent, std::size_t notSent = 0,
                      std::chrono::milliseconds bound = 5s) {
        return recorder->waitFor(
            [&] { return recorder->sent.size() >= sent && recorder->notSent.size() >= notSent; },
            bound);
    }

    // What arrived (with the sender's host: "data@host"), what went, why sends failed
    // ("tag code: text") and each close, described, so far.
    template <class Entries, class Describe>
    Texts describeEach(const Entries& entries, Describe describe) {
        return recorder->read([&] {
            Texts texts;
            for (const auto& entry : entries) texts.push_back(describe(entry));
            return texts;
        });
    }
    Texts texts(bool withHost = false) {
        return describeEach(recorder->received, [&](const Recorder::Datagram& d) {
            return text(d.data) + (withHost ? "@" + UdpSocket::hostFromAddress(d.from) : "");
        });
    }
    Tags sent() {
        return recorder->read([&] { return recorder->sent; });
    }
    Texts failures() {
        return describeEach(recorder->notSent, [](const auto& failure) {
            const auto& [tag, error] = failure;
            return std::to_string(tag) + " " + std::to_string(error.code()) + ": " +
                   error.description();
        });
    }
    Texts closes() { return describeEach(recorder->closed, tcpTest::describe); }
    std::any context(std::size_t i) {
        return recorder->read([&] { return recorder->received.at(i).context; });
    }

    std::shared_ptr<DispatchQueue> delegateQueue;
    std::shared_ptr<Recorder> recorder;
    std::shared_ptr<UdpSocket> socket;
};

// Why a call was refused, read once it has returned.
std::string refusal(bool accepted, const UdpSocketError& error) {
    return accepted ? "accepted" : error.description();
}

// Port 0 binds both families to ports of the kernel's choice (the sending tests receive there),
// or an interface's addresses only.
TEST(UdpSocketBind, BothFamiliesOrAnInterfacesAddresses) {
    Peer receiver;
    receiver.listen();
    EXPECT_NE(receiver.socket->localPortIPv4(), 0);
    EXPECT_NE(receiver.socket->localPortIPv6(), 0);
    EXPECT_EQ(receiver.socket->localHostIPv4(), "0.0.0.0");
    EXPECT_EQ(receiver.socket->localHostIPv6(), "::");

    Peer peer;
    UdpSocketError error;
    EXPECT_EQ(refusal(peer.socket->bindToPort(0, "no-such-interface0", &error), error),
              "Unknown interface. Specify valid interface by name (e.g. \"en1\") or IP address.");
    EXPECT_EQ(error.code(), UdpSocketError::badParam);
    peer.socket->setIPv4Enabled(false);
    EXPECT_EQ(refusal(peer.socket->bindToPort(0, "127.0.0.1", &error), error),
              "IPv4 has been disabled and specified interface doesn't support IPv6.");
    peer.socket->setIPv6Enabled(false);
    EXPECT_EQ(refusal(peer.socket->bindToPort(0, &error), error),
              "Both IPv4 and IPv6 have been disabled. Must enable at least one protocol first.");

    // "loopback" and "localhost" mean both loopback addresses; an address, its own family only,
    // taken as is when no device carries it (the system then refuses it).
    const auto boundTo = [](const std::string& interface) {
        Peer bound;
        UdpSocketError error;
        return bound.socket->bindToPort(0, interface, &error)
                   ? bound.socket->localHostIPv4() + " | " + bound.socket->localHostIPv6()
                   : tcpTest::describe(error);
    };
    EXPECT_EQ(boundTo("loopback"), "127.0.0.1 | ::1");
    EXPECT_EQ(boundTo("localhost"), "127.0.0.1 | ::1");
    EXPECT_EQ(boundTo("::1"), " | ::1");
    EXPECT_EQ(boundTo("192.0.2.1"), "NSPOSIXErrorDomain " + std::to_string(EADDRNOTAVAIL) + ": " +
                                        std::strerror(EADDRNOTAVAIL) +
                                        " (Error in bind() function)");

    // By interface name: only IPv4 on the loopback device carries an address for sure.
    Peer named;
    named.socket->setIPv6Enabled(false);
    ASSERT_TRUE(named.socket->bindToPort(0, "lo", &error)) << error.description();
    EXPECT_EQ(named.socket->localHostIPv4(), "127.0.0.1");
    EXPECT_EQ(named.socket->socket6FD(), -1);
    EXPECT_NE(named.socket->socketFD(), -1);
}

// A failed bind leaves the socket usable; the errors carry domain, code, text and reason.
TEST(UdpSocketErrors, BindFailureAndFactoriesCarryDomainCodeAndText) {
    auto holder = std::make_unique<test::UdpPeer>();  // no address reuse: keeps others out
    Peer peer;
    peer.socket->setIPv6Enabled(false);
    UdpSocketError error;
    EXPECT_FALSE(peer.socket->bindToPort(holder->port(), "127.0.0.1", &error));
    holder.reset();
    EXPECT_TRUE(peer.socket->bindToPort(0, &error)) << error.description();

    const auto posix = [](int code) {
        return "NSPOSIXErrorDomain " + std::to_string(code) + ": " + std::strerror(code);
    };
    errno = ECONNREFUSED;
    const std::pair<UdpSocketError, std::string> cases[] = {
        {error, posix(EADDRINUSE) + " (Error in bind() function)"},
        {UdpSocketError::errnoError("Error in send() function."),
         posix(ECONNREFUSED) + " (Error in send() function.)"},
        {UdpSocketError::sendTimeoutError(), "UdpSocketErrorDomain 3: Send operation timed out"},
        {UdpSocketError::socketClosedError(), "UdpSocketErrorDomain 4: Socket closed"},
        {UdpSocketError::otherError("x"),
         "UdpSocketErrorDomain " + std::to_string(UdpSocketError::other) + ": x"},
        {UdpSocketError(SocketError::unusableParam("x")), "UdpSocketErrorDomain 2: x"},
        {UdpSocketError::gaiError(EAI_FAIL),
         "kCFStreamErrorDomainNetDB " + std::to_string(EAI_FAIL) + ": " + gai_strerror(EAI_FAIL)},
    };
    for (const auto& [made, expected] : cases) {
        EXPECT_EQ(tcpTest::describe(made), expected);
        EXPECT_STREQ(made.what(), made.description().c_str());
    }
}

TEST(UdpSocketPreconditions, DelegateAndDelegateQueueMustBeSet) {
    auto queue = SerialQueue::create("test.delegate");
    auto recorder = std::make_shared<Recorder>(queue);
    const std::string noDelegate =
        "Attempting to use socket without a delegate. Set a delegate first.";
    UdpSocketError error;

    auto withoutDelegate = UdpSocket::create({}, queue);
    EXPECT_EQ(refusal(withoutDelegate->bindToPort(0, &error), error), noDelegate);
    EXPECT_EQ(error.code(), UdpSocketError::badConfig);
    EXPECT_EQ(refusal(withoutDelegate->enableReusePort(true, &error), error), noDelegate);

    auto noQueue = UdpSocket::create(recorder);
    EXPECT_EQ(refusal(noQueue->connectToHost("localhost", 9, &error), error),
              "Attempting to use socket without a delegate queue. Set a delegate queue first.");
    // A delegate that went away counts as none.
    noQueue->synchronouslySetDelegate(std::make_shared<Recorder>(queue), queue);
    EXPECT_EQ(refusal(noQueue->bindToPort(0, &error), error), noDelegate);

    // The plain setters apply later, in order with what follows on the socket queue.
    noQueue->setDelegate(recorder);
    EXPECT_TRUE(noQueue->bindToPort(0, &error)) << error.description();
}

TEST(UdpSocketReceive, BeginReceivingNeedsDescriptorsNotABind) {
    Peer peer;
    UdpSocketError error;
    const char* bindFirst =
        "Must bind socket before you can receive data. You can do this explicitly via bind, or "
        "implicitly via connect or by sending data.";
    EXPECT_EQ(refusal(peer.socket->beginReceiving(&error), error), bindFirst);
    EXPECT_EQ(refusal(peer.socket->receiveOnce(&error), error), bindFirst);
    EXPECT_TRUE(peer.socket->isClosed());

    ASSERT_TRUE(peer.socket->enableReusePort(true, &error)) << error.description();
    EXPECT_FALSE(peer.socket->isClosed());
    EXPECT_TRUE(peer.socket->beginReceiving(&error)) << error.description();
    EXPECT_TRUE(peer.socket->beginReceiving(&error)) << "a second call is harmless";

    // Two reusing sockets share one port.
    ASSERT_TRUE(peer.socket->bindToPort(0, &error)) << error.description();
    Peer second;
    ASSERT_TRUE(second.socket->enableReusePort(true, &error)) << error.description();
    second.socket->setIPv6Enabled(false);
    EXPECT_TRUE(second.socket->bindToPort(peer.socket->localPortIPv4(), &error))
        << error.description();
}

// Each packet goes to the first address of the preferred usable family: the loopback names
// resolve to IPv4 first, a preference without addresses of its family is passed over, and so
// is a preferred family that was disabled.
TEST(UdpSocketSend, ToTheFirstAddressOfThePreferredUsableFamily) {
    Peer receiver;
    receiver.listen();
    // A second bind fails; the first binding keeps working.
    UdpSocketError error;
    EXPECT_EQ(refusal(receiver.socket->bindToPort(0, &error), error),
              "Cannot bind a socket more than once.");
    EXPECT_EQ(error.domain(), "UdpSocketErrorDomain");
    EXPECT_EQ(error.code(), UdpSocketError::badConfig);
    const struct {
        std::string host;
        std::function<void(UdpSocket&)> setup;
        std::string arrived;
    } cases[] = {
        {"localhost", [](UdpSocket&) {}, "localhost@127.0.0.1"},
        {"loopback", [](UdpSocket& s) { s.setPreferIPv6(); }, "loopback@::1"},
        {"127.0.0.1", [](UdpSocket& s) { s.setPreferIPv6(); }, "127.0.0.1@127.0.0.1"},
        {"loopback",
         [](UdpSocket& s) {
             s.setPreferIPv4();
             s.setIPv4Enabled(false);
         },
         "loopback@::1"},
    };
    Texts expected;
    std::vector<Peer> senders(std::size(cases));
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        const auto& c = cases[i];
        c.setup(*senders[i].socket);
        const bool six = c.arrived.ends_with("::1");
        senders[i].socket->sendData(
            bytes(c.host), c.host,
            six ? receiver.socket->localPortIPv6() : receiver.socket->localPortIPv4(), 1.0, 1);
        ASSERT_TRUE(receiver.waitForReceived(i + 1)) << c.arrived;
        expected.push_back(c.arrived);
    }
    EXPECT_TRUE(senders[0].socket->isIPVersionNeutral());
    EXPECT_EQ(receiver.texts(true), expected);
    EXPECT_TRUE(receiver.recorder->read([&] { return receiver.recorder->allOnDelegateQueue; }));
    receiver.recorder->read([&] {
        const auto& got = receiver.recorder->received;
        EXPECT_EQ(UdpSocket::familyFromAddress(got[0].from), AF_INET);
        EXPECT_EQ(UdpSocket::familyFromAddress(got[1].from), AF_INET6);
        EXPECT_EQ(got[1].from.size(), sizeof(sockaddr_in6));
        EXPECT_FALSE(got[1].context.has_value());
    });
    // The first datagram bound the sender implicitly.
    EXPECT_NE(senders[0].socket->localPortIPv4(), 0);
}

// A packet that cannot go where it is sent fails alone, with the reason, and the socket sends on.
TEST(UdpSocketSend, ADestinationThatCannotBeUsedFailsThatPacketOnly) {
    Peer receiver;
    receiver.listen();
    const std::uint16_t port4 = receiver.socket->localPortIPv4();
    const std::uint16_t port6 = receiver.socket->localPortIPv6();
    {
        SCOPED_TRACE("unresolvable host, no destination, empty address or host");
        Peer sender;
        sender.socket->sendData(bytes("lost"), "no-such-host.invalid", 9, 1.0, 1);
        sender.socket->sendData(bytes("b"), 1.0, 2);  // unconnected: no destination
        sender.socket->sendData(bytes("c"), SocketAddress::fromNumericHost("::1", port6), -1, 3);
        sender.socket->sendData(bytes("d"), SocketAddress(), -1, 4);
        sender.socket->sendData(bytes("e"), "", port4, -1, 5);
        // A resolver that cannot reach its server may take its full retry time to say no.
        ASSERT_TRUE(sender.waitForSends(1, 4, 60s));
        const UdpSocketError lookup =
            sender.recorder->read([&] { return sender.recorder->notSent.front().second; });
        EXPECT_NE(lookup.code(), 0);
        EXPECT_EQ(tcpTest::describe(lookup), "kCFStreamErrorDomainNetDB " +
                                                 std::to_string(lookup.code()) + ": " +
                                                 gai_strerror(lookup.code()));
        // tag code: text
        const Texts failures = sender.failures();
        ASSERT_EQ(failures.size(), 4u);
        EXPECT_TRUE(failures[0].starts_with("1 ")) << failures[0];
        EXPECT_EQ(failures[1],
                  "2 1: You must specify destination of packet for a non-connected socket");
        EXPECT_TRUE(failures[2].starts_with("4 2: ")) << failures[2];
        EXPECT_EQ(failures[3],
                  "5 2: The host param is nil. Should be domain name or IP address string.");
        EXPECT_EQ(sender.sent(), (Tags{3}));
        ASSERT_TRUE(receiver.waitForReceived(1));
        EXPECT_EQ(receiver.texts(), (Texts{"c"}));
    }
    // A family turned off by its setter or left out by a bind (which leaves it no descriptor,
    // so that even a preference for it is passed over): "localhost" goes over the other
    // family, and an address of that family alone fails.
    const auto bindTo = [](const char* interface) {
        return [interface](UdpSocket& s) {
            UdpSocketError error;
            ASSERT_TRUE(s.bindToPort(0, interface, &error)) << error.description();
        };
    };
    const std::string noIPv4 = "DNS lookup found no IPv4 address(es).";
    const std::string noIPv6 = "DNS lookup found no IPv6 address(es).";
    const struct {
        std::function<void(UdpSocket&)> setup;
        std::string lostHost, failure;
    } cases[] = {
        {[](UdpSocket& s) { s.setIPv4Enabled(false); }, "127.0.0.1",
         "IPv4 has been disabled and " + noIPv6},
        {[](UdpSocket& s) { s.setIPv6Enabled(false); }, "::1",
         "IPv6 has been disabled and " + noIPv4},
        {bindTo("::1"), "127.0.0.1",
         "IPv4 has been deactivated due to bind/connect, and " + noIPv6},
        {bindTo("127.0.0.1"), "::1",
         "IPv6 has been deactivated due to bind/connect, and " + noIPv4},
    };
    std::size_t arrived = 1;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.failure);
        Peer sender;
        c.setup(*sender.socket);
        c.lostHost == "::1" ? sender.socket->setPreferIPv6() : sender.socket->setPreferIPv4();
        sender.socket->sendData(bytes("kept"), "localhost", c.lostHost == "::1" ? port4 : port6,
                                1.0, 1);
        sender.socket->sendData(bytes("lost"), c.lostHost, c.lostHost == "::1" ? port6 : port4, 1.0,
                                2);
        ASSERT_TRUE(sender.waitForSends(1, 1));
        EXPECT_EQ(sender.sent(), (Tags{1}));
        EXPECT_EQ(sender.failures(), (Texts{"2 5: " + c.failure}));
        ASSERT_TRUE(receiver.waitForReceived(++arrived));
        EXPECT_FALSE(sender.socket->isClosed());
    }
}

// Neither an empty datagram, ignored without a report, nor a packet a filter blocks, reported
// sent, reaches the wire; an empty datagram from elsewhere is read and dropped.
TEST(UdpSocketSend, EmptyOrFilteredPacketsAreNotTransmitted) {
    Peer receiver;
    receiver.listen(false);
    const std::uint16_t port = receiver.socket->localPortIPv4();
    Peer sender;
    sender.socket->sendData({}, "127.0.0.1", port, 1.0, 1);
    // A timeout of zero never fires for a send that does not block: the timer starts only then.
    sender.socket->sendData(bytes("x"), "127.0.0.1", port, 0.0, 2);
    // Reports come in queue order: once tag 2 is in, tag 1 would have been too.
    ASSERT_TRUE(sender.waitForSends(1));
    EXPECT_EQ(sender.sent(), (Tags{2}));

    test::UdpPeer raw;
    raw.sendTo(port, {});
    raw.sendTo(port, bytes("y"));
    ASSERT_TRUE(receiver.waitForReceived(2));

    for (const bool asynchronous : {false, true}) {
        SCOPED_TRACE(asynchronous ? "asynchronous filter" : "synchronous filter");
        auto filterQueue = SerialQueue::create("test.filter");
        sender.socket->setSendFilter(
            [filterQueue](const Bytes& data, const SocketAddress& to, std::int64_t tag) {
                EXPECT_TRUE(filterQueue->isCurrent());
                EXPECT_EQ(UdpSocket::hostFromAddress(to), "127.0.0.1");
                return !(text(data) == "blocked" && tag == 3);
            },
            filterQueue, asynchronous);
        sender.socket->sendData(bytes("blocked"), "127.0.0.1", port, 1.0, 3);
        sender.socket->sendData(bytes("passed"), "127.0.0.1", port, 1.0, 4);
        ASSERT_TRUE(sender.waitForSends(asynchronous ? 5 : 3));
    }
    EXPECT_EQ(sender.sent(), (Tags{2, 3, 4, 3, 4}));
    EXPECT_TRUE(sender.failures().empty());
    // Datagrams arrive in order over loopback: a blocked one would have come before its pair.
    ASSERT_TRUE(receiver.waitForReceived(4));
    EXPECT_EQ(receiver.texts(), (Texts{"x", "y", "passed", "passed"}));
    EXPECT_TRUE(receiver.closes().empty());
}

// A burst larger than one read batch, sent before reading starts so that it waits whole in the
// kernel, arrives complete and in order; empty datagrams are skipped and overlong ones cut to
// the limit, the next one whole.
TEST(UdpSocketReceive, BurstArrivesWholeInOrderThroughALargerKernelBuffer) {
    Peer receiver;
    receiver.socket->setIPv6Enabled(false);
    receiver.socket->setMaxReceiveIPv4BufferSize(16);
    UdpSocketError error;
    ASSERT_TRUE(receiver.socket->setKernelReceiveBufferSize(4 << 20, &error))
        << error.description();
    ASSERT_TRUE(receiver.socket->bindToPort(0, "localhost", &error)) << error.description();
    EXPECT_EQ(receiver.socket->kernelReceiveBufferSize(), 4u << 20);
    int granted = 0;
    socklen_t length = sizeof granted;
    ASSERT_EQ(::getsockopt(receiver.socket->socket4FD(), SOL_SOCKET, SO_RCVBUF, &granted, &length),
              0);
    // Above the default (twice the send limit); without privilege the system's cap bounds it.
    EXPECT_GT(granted, 2 * 65535);

    test::UdpPeer sender;
    // Small datagrams take about a kilobyte each in the kernel's accounting.
    const int kCount = granted >= 4 << 20 ? 3000 : 200;
    Texts expected;
    for (int i = 0; i < kCount; ++i) {
        std::string datagram = i == 700 ? "" : std::to_string(i);
        if (i == 701) datagram = "701-and-then-much-too-long";
        sender.sendTo(receiver.socket->localPortIPv4(), bytes(datagram));
        if (i != 700) expected.push_back(datagram.substr(0, 16));
    }
    ASSERT_TRUE(receiver.socket->beginReceiving(&error)) << error.description();
    ASSERT_TRUE(receiver.waitForReceived(kCount - 1));
    EXPECT_EQ(receiver.texts(), expected);
    const SocketAddress from =
        receiver.recorder->read([&] { return receiver.recorder->received.back().from; });
    std::string host;
    std::uint16_t port = 0;
    ASSERT_TRUE(UdpSocket::getHost(&host, &port, from));
    EXPECT_EQ(host, "127.0.0.1");
    EXPECT_EQ(port, sender.port());
}

// Past its backlog limit the socket leaves what comes in the kernel's buffer until the delegate
// catches up; then it arrives, in order.
TEST(UdpSocketReceive, ADelegateThatFallsBehindStopsTheReadingAtTheBacklogLimit) {
    Peer receiver;
    receiver.socket->setMaxReceiveBacklog(1);
    EXPECT_EQ(receiver.socket->maxReceiveBacklog(), 1u);
    std::promise<void> caughtUp;
    receiver.delegateQueue->async([behind = caughtUp.get_future().share()] { behind.wait(); });
    receiver.listen(false);
    const int fd = receiver.socket->socket4FD();
    const auto kernelIsEmpty = [fd] {
        char byte;
        return ::recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) < 0;
    };
    test::UdpPeer sender;
    const auto port = receiver.socket->localPortIPv4();
    sender.sendTo(port, bytes("a"));
    ASSERT_TRUE(tcpTest::eventually(kernelIsEmpty));
    sender.sendTo(port, bytes("b"));
    sender.sendTo(port, bytes("c"));
    EXPECT_FALSE(tcpTest::eventually(kernelIsEmpty, 300ms));
    caughtUp.set_value();
    ASSERT_TRUE(receiver.waitForReceived(3));
    EXPECT_EQ(receiver.texts(), (Texts{"a", "b", "c"}));
}

TEST(UdpSocketReceive, FiltersOnceModeAndPause) {
    Peer receiver;
    receiver.socket->setIPv6Enabled(false);
    UdpSocketError error;
    ASSERT_TRUE(receiver.socket->bindToPort(0, "localhost", &error)) << error.description();
    const std::uint16_t port = receiver.socket->localPortIPv4();
    auto filterQueue = SerialQueue::create("test.filter");
    receiver.socket->setReceiveFilter(
        [](const Bytes& data, const SocketAddress&, std::any& context) {
            context = static_cast<int>(data.size());
            return text(data) != "drop";
        },
        filterQueue, false);
    ASSERT_TRUE(receiver.socket->receiveOnce(&error)) << error.description();

    Peer sender;
    for (const char* word : {"drop", "one", "two"}) {
        sender.socket->sendData(bytes(word), "127.0.0.1", port, 1.0, 0);
    }
    ASSERT_TRUE(sender.waitForSends(3));
    ASSERT_TRUE(receiver.waitForReceived(1));
    // Once-mode stops after one delivery, so "two" waits in the kernel until asked for.
    EXPECT_FALSE(receiver.waitForReceived(2, 100ms));
    EXPECT_EQ(receiver.texts(), (Texts{"one"}));
    EXPECT_EQ(std::any_cast<int>(receiver.context(0)), 3);

    receiver.socket->setReceiveFilter(
        [](const Bytes&, const SocketAddress&, std::any& context) {
            context = std::string("async");
            return true;
        },
        filterQueue);
    ASSERT_TRUE(receiver.socket->beginReceiving(&error)) << error.description();
    ASSERT_TRUE(receiver.waitForReceived(2));
    EXPECT_EQ(receiver.texts(), (Texts{"one", "two"}));
    EXPECT_EQ(std::any_cast<std::string>(receiver.context(1)), "async");

    receiver.socket->pauseReceiving();
    sender.socket->sendData(bytes("later"), "127.0.0.1", port, 1.0, 0);
    ASSERT_TRUE(sender.waitForSends(4));
    EXPECT_FALSE(receiver.waitForReceived(3, 100ms));
    ASSERT_TRUE(receiver.socket->beginReceiving(&error)) << error.description();
    ASSERT_TRUE(receiver.waitForReceived(3));
}

TEST(UdpSocketDelegate, CallbacksAreNeverInline) {
    auto mainQueue = std::make_shared<ManualQueue>();
    Peer peer(mainQueue);
    peer.socket->setIPv6Enabled(false);
    UdpSocketError error;
    ASSERT_TRUE(peer.socket->bindToPort(0, "127.0.0.1", &error)) << error.description();
    ASSERT_TRUE(peer.socket->beginReceiving(&error)) << error.description();
    peer.socket->sendData(bytes("self"),
                          SocketAddress::fromNumericHost("127.0.0.1", peer.socket->localPortIPv4()),
                          1.0, 5);
    peer.socket->performBlock([] {});  // the send (no lookup needed) has happened by now
    // Reported, but nothing has run while nobody drains the delegate queue.
    EXPECT_GE(mainQueue->pending(), 1u);
    EXPECT_TRUE(peer.sent().empty());
    peer.socket->close();
    EXPECT_TRUE(peer.closes().empty());
    EXPECT_TRUE(peer.socket->isClosed());

    EXPECT_TRUE(mainQueue->drainUntil([&] { return !peer.closes().empty(); }, 5s));
    EXPECT_EQ(peer.sent(), (Tags{5}));
    EXPECT_EQ(peer.closes(), Texts{"no error"}) << "a plain close has no error";
    EXPECT_TRUE(peer.recorder->read([&] { return peer.recorder->allOnDelegateQueue; }));
}

TEST(UdpSocketClose, ReportsOnlyWhenDescriptorsExisted) {
    Peer peer;
    peer.socket->close();
    peer.socket->closeAfterSending();
    peer.delegateQueue->sync([] {});  // anything posted by the closes has run by now
    EXPECT_TRUE(peer.closes().empty());

    // closeAfterSending waits for the queue, then closes without error.
    Peer receiver;
    receiver.listen(false);
    peer.socket->sendData(bytes("last"), "127.0.0.1", receiver.socket->localPortIPv4(), 1.0, 9);
    peer.socket->closeAfterSending();
    ASSERT_TRUE(peer.recorder->waitFor([&] { return !peer.recorder->closed.empty(); }));
    EXPECT_EQ(peer.sent(), (Tags{9}));
    EXPECT_EQ(peer.closes(), Texts{"no error"});
    EXPECT_TRUE(peer.socket->isClosed());
    ASSERT_TRUE(receiver.waitForReceived(1));

    // A closed socket can be bound again.
    UdpSocketError error;
    EXPECT_TRUE(peer.socket->bindToPort(0, &error)) << error.description();
}

TEST(UdpSocketConnect, ConnectedSocketTalksToItsPeerOnly) {
    Peer server;
    server.listen(false);
    const std::uint16_t serverPort = server.socket->localPortIPv4();

    Peer client;
    UdpSocketError error;
    ASSERT_TRUE(client.socket->connectToHost("localhost", serverPort, &error))
        << error.description();
    EXPECT_EQ(refusal(client.socket->connectToHost("localhost", serverPort, &error), error),
              "Cannot connect a socket more than once.");
    ASSERT_TRUE(client.recorder->waitFor([&] { return !client.recorder->connected.empty(); }));
    EXPECT_TRUE(client.socket->isConnected());
    EXPECT_EQ(client.socket->connectedHost(), "127.0.0.1");
    EXPECT_EQ(client.socket->connectedPort(), serverPort);
    EXPECT_TRUE(client.socket->isIPv4());
    EXPECT_FALSE(client.socket->isIPv6());
    EXPECT_EQ(refusal(client.socket->bindToPort(0, &error), error),
              "Cannot bind after connecting. If needed, bind first, then connect.");

    client.socket->sendData(bytes("hello"), 1);
    client.socket->sendData(bytes("x"), "127.0.0.1", serverPort, 1.0, 2);
    ASSERT_TRUE(client.waitForSends(1, 1));
    EXPECT_EQ(client.sent(), (Tags{1}));
    EXPECT_EQ(client.failures(),
              (Texts{"2 1: Cannot specify destination of packet for connected socket"}));
    ASSERT_TRUE(server.waitForReceived(1));
    const SocketAddress clientAddress =
        server.recorder->read([&] { return server.recorder->received[0].from; });

    // A stranger's datagram is dropped; the peer's arrives.
    ASSERT_TRUE(client.socket->beginReceiving(&error)) << error.description();
    Peer stranger;
    stranger.socket->sendData(bytes("stranger"), clientAddress, 1.0, 0);
    ASSERT_TRUE(stranger.waitForSends(1));
    server.socket->sendData(bytes("reply"), clientAddress, 1.0, 0);
    ASSERT_TRUE(client.waitForReceived(1));
    EXPECT_EQ(client.texts(), (Texts{"reply"}));

    Peer unresolved;
    ASSERT_TRUE(unresolved.socket->connectToHost("no-such-host.invalid", 9, &error));
    ASSERT_TRUE(unresolved.recorder->waitFor(
        [&] { return !unresolved.recorder->notConnected.empty(); }, 60s));
    EXPECT_EQ(
        unresolved.recorder->read([&] { return unresolved.recorder->notConnected[0].domain(); }),
        "kCFStreamErrorDomainNetDB");
    EXPECT_FALSE(unresolved.socket->connectToAddress(SocketAddress(), &error));
}

TEST(UdpSocketMulticast, JoinRules) {
    Peer peer;
    UdpSocketError error;
    EXPECT_EQ(refusal(peer.socket->joinMulticastGroup("239.1.2.3", &error), error),
              "Must bind a socket before joining a multicast group.");
    peer.socket->setIPv6Enabled(false);
    ASSERT_TRUE(peer.socket->bindToPort(0, &error)) << error.description();
    EXPECT_EQ(refusal(peer.socket->joinMulticastGroup("not-a-group", &error), error),
              "Unknown group. Specify valid group IP address.");
    EXPECT_EQ(refusal(peer.socket->joinMulticastGroup("ff02::1", &error), error),
              "Socket, group, and interface do not have matching IP versions");
    EXPECT_EQ(
        refusal(peer.socket->sendIPv4MulticastOnInterface("no-such-interface0", &error), error),
        "Unknown interface. Specify valid interface by IP address.");
    EXPECT_EQ(
        refusal(peer.socket->sendIPv6MulticastOnInterface("no-such-interface0", &error), error),
        "Unknown interface. Specify valid interface by name (e.g. \"en1\").");
    // Whether the kernel lets us join depends on the machine's routes; a failure must be
    // the setsockopt error.
    if (!peer.socket->joinMulticastGroup("239.1.2.3", "127.0.0.1", &error)) {
        EXPECT_EQ(error.failureReason(), "Error in setsockopt() function");
    } else {
        EXPECT_TRUE(peer.socket->leaveMulticastGroup("239.1.2.3", "127.0.0.1", &error))
            << error.description();
    }
}

// The address helpers forward to SocketAddress, tested on its own; what is theirs is the
// refusal of a blob that is no IP address, and the bound on a blob's size.
TEST(UdpSocketAddress, BlobHelpers) {
    const SocketAddress address = SocketAddress::fromNumericHost("fe80::1", 8001);
    std::string host;
    std::uint16_t port = 0;
    int family = 0;
    ASSERT_TRUE(UdpSocket::getHost(&host, &port, &family, address));
    EXPECT_EQ(host, "fe80::1");
    EXPECT_EQ(port, 8001);
    EXPECT_EQ(family, AF_INET6);
    EXPECT_EQ(address, SocketAddress(address.bytes()));

    const SocketAddress truncated(address.data(), 10);  // too short for its family
    EXPECT_FALSE(UdpSocket::getHost(&host, &port, truncated));
    EXPECT_EQ(UdpSocket::familyFromAddress(truncated), AF_UNSPEC);
    EXPECT_THROW(SocketAddress(std::vector<std::uint8_t>(29)), std::length_error);
}

TEST(UdpSocketConfiguration, LimitsAreClampedAndQueueMarksRunInline) {
    Peer peer;
    EXPECT_EQ(peer.socket->maxSendBufferSize(), 65535);
    EXPECT_EQ(peer.socket->maxReceiveIPv6BufferSize(), 65535u);
    // A limit no datagram can reach would only make the receive buffers huge.
    peer.socket->setMaxReceiveIPv6BufferSize(0xFFFFFFFF);
    EXPECT_EQ(peer.socket->maxReceiveIPv6BufferSize(), 65535u);
    EXPECT_TRUE(peer.socket->setKernelReceiveBufferSize(std::size_t{1} << 40));
    EXPECT_EQ(peer.socket->kernelReceiveBufferSize(), std::size_t{INT_MAX / 2});

    // Calls from the socket queue itself, or from a queue marked as running for it, run inline.
    auto other = SerialQueue::create("test.marked");
    peer.socket->markSocketQueueTargetQueue(*other);
    bool inline_ = false;
    other->sync([&] { peer.socket->performBlock([&] { inline_ = true; }); });
    EXPECT_TRUE(inline_);
    peer.socket->unmarkSocketQueueTargetQueue(*other);
    peer.socket->performBlock([&] { EXPECT_TRUE(peer.socket->isIPv4Enabled()); });
}

TEST(UdpSocketDeathTest, ProgrammingErrorsStopWithTheirText) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(UdpSocket::create({}, nullptr, GlobalQueue::get()),
                 "The given socketQueue parameter must not be a concurrent queue\\.");
    EXPECT_DEATH(UdpSocket::create()->setReceiveFilter(
                     [](const Bytes&, const SocketAddress&, std::any&) { return true; }, nullptr),
                 "Must provide a dispatch_queue in which to run the filter block\\.");
}

}  // namespace
}  // namespace kavrin
