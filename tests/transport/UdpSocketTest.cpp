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
#include "osc/transport/detail/DestinationChoice.hpp"
#include "tests/UdpPeer.hpp"

namespace kavrin {
namespace {

using namespace std::chrono_literals;
using tcpTest::bytes;
using tcpTest::Bytes;
using tcpTest::text;
using Texts = std::vector<std::string>;
using Tags = std::vector<std::int64_t>;

// Records every report, failures ("tag code: text") and closes described; tests wait on it with
// a bound.
class Recorder : public UdpSocketDelegate, public tcpTest::Recording {
  public:
    struct Datagram {
        Bytes data;
        SocketAddress from;
        std::any context;
    };

    explicit Recorder(std::shared_ptr<DispatchQueue> queue) : Recording(std::move(queue), 5s) {}

    void udpSocketDidConnectToAddress(UdpSocket&, const SocketAddress&) override {
        record([&] { connects.push_back("connected"); });
    }
    void udpSocketDidNotConnect(UdpSocket&, const UdpSocketError& error) override {
        record([&] { connects.push_back(tcpTest::describe(error)); });
    }
    void udpSocketDidSendDataWithTag(UdpSocket&, std::int64_t tag) override {
        record([&] { sent.push_back(tag); });
    }
    void udpSocketDidNotSendDataWithTag(UdpSocket&, std::int64_t tag,
                                        const UdpSocketError& error) override {
        record([&] {
            failures.push_back(std::to_string(tag) + " " + std::to_string(error.code()) + ": " +
                               error.description());
        });
    }
    void udpSocketDidReceiveData(UdpSocket&, Bytes data, const SocketAddress& address,
                                 const std::any& context) override {
        record([&] { received.push_back({std::move(data), address, context}); });
    }
    void udpSocketDidClose(UdpSocket&, const std::optional<UdpSocketError>& error) override {
        record([&] { closes.push_back(tcpTest::describe(error)); });
    }

    Texts connects;
    Tags sent;
    Texts failures;
    std::vector<Datagram> received;
    Texts closes;
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
    bool waitForSends(std::size_t sent, std::size_t failed = 0,
                      std::chrono::milliseconds bound = 5s) {
        return recorder->waitFor(
            [&] { return recorder->sent.size() >= sent && recorder->failures.size() >= failed; },
            bound);
    }

    // What arrived so far, with the sender's host if asked for: "data@host".
    Texts texts(bool withHost = false) {
        return recorder->read([&] {
            Texts texts;
            for (const auto& d : recorder->received) {
                texts.push_back(text(d.data) +
                                (withHost ? "@" + UdpSocket::hostFromAddress(d.from) : ""));
            }
            return texts;
        });
    }
    Tags sent() { return recorder->read([&] { return recorder->sent; }); }
    Texts failures() { return recorder->read([&] { return recorder->failures; }); }
    Texts closes() { return recorder->read([&] { return recorder->closes; }); }
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

constexpr FamilyAllowance kAllowed{};
constexpr FamilyAllowance kPreferred{false, false, true};

std::string posix(int code) {
    return "NSPOSIXErrorDomain " + std::to_string(code) + ": " + std::strerror(code);
}

// Port 0 binds both families to ports of the kernel's choice (the sending tests receive there),
// or an interface's addresses only. A failed bind leaves the socket usable.
TEST(UdpSocketBind, BothFamiliesOrAnInterfacesAddresses) {
    Peer receiver;
    receiver.listen();
    EXPECT_NE(receiver.socket->localPortIPv4(), 0);
    EXPECT_NE(receiver.socket->localPortIPv6(), 0);
    EXPECT_EQ(receiver.socket->localHostIPv4(), "0.0.0.0");
    EXPECT_EQ(receiver.socket->localHostIPv6(), "::");

    // "loopback" and "localhost" mean both loopback addresses; an address, its own family only,
    // taken as is when no device carries it (the system then refuses it); by interface name,
    // only IPv4 on the loopback device carries an address for sure.
    const auto boundTo = [](const std::string& interface, bool ipv6 = true) {
        Peer bound;
        UdpSocketError error;
        bound.socket->setIPv6Enabled(ipv6);
        return bound.socket->bindToPort(0, interface, &error)
                   ? bound.socket->localHostIPv4() + " | " + bound.socket->localHostIPv6()
                   : tcpTest::describe(error);
    };
    EXPECT_EQ(boundTo("loopback"), "127.0.0.1 | ::1");
    EXPECT_EQ(boundTo("localhost"), "127.0.0.1 | ::1");
    EXPECT_EQ(boundTo("::1"), " | ::1");
    EXPECT_EQ(boundTo("lo", false), "127.0.0.1 | ");
    EXPECT_EQ(boundTo("192.0.2.1"), posix(EADDRNOTAVAIL) + " (Error in bind() function)");

    auto holder = std::make_unique<test::UdpPeer>();  // no address reuse: keeps others out
    Peer peer;
    peer.socket->setIPv6Enabled(false);
    UdpSocketError error;
    EXPECT_FALSE(peer.socket->bindToPort(holder->port(), "127.0.0.1", &error));
    EXPECT_EQ(tcpTest::describe(error), posix(EADDRINUSE) + " (Error in bind() function)");
    holder.reset();
    EXPECT_TRUE(peer.socket->bindToPort(0, &error)) << error.description();

    // Descriptors, not a bind, let a socket receive; two reusing sockets share one port.
    Peer reusing, second;
    ASSERT_TRUE(reusing.socket->enableReusePort(true, &error)) << error.description();
    EXPECT_TRUE(reusing.socket->beginReceiving(&error)) << error.description();
    EXPECT_TRUE(reusing.socket->beginReceiving(&error)) << "a second call is harmless";
    ASSERT_TRUE(reusing.socket->bindToPort(0, &error)) << error.description();
    ASSERT_TRUE(second.socket->enableReusePort(true, &error)) << error.description();
    second.socket->setIPv6Enabled(false);
    EXPECT_TRUE(second.socket->bindToPort(reusing.socket->localPortIPv4(), &error))
        << error.description();
}

// The errors no other test provokes carry domain, code and text as the others do.
TEST(UdpSocketErrors, FactoriesCarryDomainCodeAndText) {
    const std::pair<UdpSocketError, std::string> cases[] = {
        {UdpSocketError::sendTimeoutError(), "UdpSocketErrorDomain 3: Send operation timed out"},
        {UdpSocketError::socketClosedError(), "UdpSocketErrorDomain 4: Socket closed"},
        {UdpSocketError::otherError("x"),
         "UdpSocketErrorDomain " + std::to_string(UdpSocketError::other) + ": x"},
        {UdpSocketError(SocketError::unusableParam("x")), "UdpSocketErrorDomain 2: x"},
    };
    for (const auto& [made, expected] : cases) {
        EXPECT_EQ(tcpTest::describe(made), expected);
        EXPECT_STREQ(made.what(), made.description().c_str());
    }
}

// Calls that cannot work are refused at once with their text, and leave the socket usable.
TEST(UdpSocketRefusals, CallsThatCannotWorkSayWhy) {
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

    Peer peer;
    const char* bindFirst =
        "Must bind socket before you can receive data. You can do this explicitly via bind, or "
        "implicitly via connect or by sending data.";
    EXPECT_EQ(refusal(peer.socket->beginReceiving(&error), error), bindFirst);
    EXPECT_EQ(refusal(peer.socket->receiveOnce(&error), error), bindFirst);
    EXPECT_EQ(refusal(peer.socket->joinMulticastGroup("239.1.2.3", &error), error),
              "Must bind a socket before joining a multicast group.");
    EXPECT_EQ(refusal(peer.socket->bindToPort(0, "no-such-interface0", &error), error),
              "Unknown interface. Specify valid interface by name (e.g. \"en1\") or IP address.");
    EXPECT_EQ(error.code(), UdpSocketError::badParam);
    peer.socket->setIPv4Enabled(false);
    EXPECT_EQ(refusal(peer.socket->bindToPort(0, "127.0.0.1", &error), error),
              "IPv4 has been disabled and specified interface doesn't support IPv6.");
    peer.socket->setIPv6Enabled(false);
    EXPECT_EQ(refusal(peer.socket->bindToPort(0, &error), error),
              "Both IPv4 and IPv6 have been disabled. Must enable at least one protocol first.");
    peer.socket->setIPv4Enabled(true);
    ASSERT_TRUE(peer.socket->bindToPort(0, &error)) << error.description();
    EXPECT_EQ(refusal(peer.socket->bindToPort(0, &error), error),
              "Cannot bind a socket more than once.");
    EXPECT_EQ(error.domain(), "UdpSocketErrorDomain");
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

// Each packet goes to the first address of the preferred usable family: the loopback names
// resolve to IPv4 first, and a preference without addresses of its family is passed over. So is
// a family turned off by its setter or left out by a bind (which leaves it no descriptor, even
// when preferred); an address of that family alone fails that packet, and the socket sends on.
TEST(UdpSocketSend, ToTheFirstAddressOfThePreferredUsableFamily) {
    Peer receiver;
    receiver.listen();
    using Setup = std::function<void(UdpSocket&)>;
    const auto prefer = [](bool ipv6, Setup then = [](UdpSocket&) {}) -> Setup {
        return [=](UdpSocket& s) {
            ipv6 ? s.setPreferIPv6() : s.setPreferIPv4();
            then(s);
        };
    };
    const Setup off4 = [](UdpSocket& s) { s.setIPv4Enabled(false); };
    const Setup off6 = [](UdpSocket& s) { s.setIPv6Enabled(false); };
    const auto bindTo = [](const char* interface) -> Setup {
        return [interface](UdpSocket& s) {
            UdpSocketError error;
            ASSERT_TRUE(s.bindToPort(0, interface, &error)) << error.description();
        };
    };
    const std::string no4 = " DNS lookup found no IPv4 address(es).";
    const std::string no6 = " DNS lookup found no IPv6 address(es).";
    const std::string deactivated = " has been deactivated due to bind/connect, and";
    const struct {
        Setup setup;
        std::string host, outcome;  // where it arrived from, or why it failed
    } cases[] = {
        {[](UdpSocket&) {}, "localhost", "@127.0.0.1"},
        {prefer(true), "loopback", "@::1"},
        {prefer(true), "127.0.0.1", "@127.0.0.1"},
        {prefer(false, off4), "loopback", "@::1"},
        {prefer(false, off4), "127.0.0.1", "5: IPv4 has been disabled and" + no6},
        {prefer(true, off6), "localhost", "@127.0.0.1"},
        {prefer(true, off6), "::1", "5: IPv6 has been disabled and" + no4},
        {prefer(false, bindTo("::1")), "localhost", "@::1"},
        {prefer(false, bindTo("::1")), "127.0.0.1", "5: IPv4" + deactivated + no6},
        {prefer(true, bindTo("127.0.0.1")), "localhost", "@127.0.0.1"},
        {prefer(true, bindTo("127.0.0.1")), "::1", "5: IPv6" + deactivated + no4},
    };
    std::size_t arrived = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.host + " " + c.outcome);
        Peer sender;
        c.setup(*sender.socket);
        const bool six = c.outcome == "@::1";
        sender.socket->sendData(bytes(c.host), c.host,
                                six ? receiver.socket->localPortIPv6()
                                    : receiver.socket->localPortIPv4(),
                                1.0, 1);
        ASSERT_TRUE(sender.recorder->waitFor(
            [&] { return sender.recorder->sent.size() + sender.recorder->failures.size() == 1; }));
        if (c.outcome.starts_with("@")) {
            ASSERT_TRUE(receiver.waitForReceived(++arrived));
            EXPECT_EQ(receiver.texts(true).back(), c.host + c.outcome);
        } else {
            EXPECT_EQ(sender.failures(), Texts{"1 " + c.outcome});
            EXPECT_FALSE(sender.socket->isClosed());
        }
    }
    EXPECT_TRUE(receiver.recorder->read([&] { return receiver.recorder->allOnDelegateQueue; }));
}

// What a name cannot show: the resolver's own order of several addresses of both families decides
// when no family is preferred.
TEST(UdpSocketSend, WithoutAPreferenceTheResolversFirstAddress) {
    const auto chosen = [](const std::vector<std::string>& hosts, FamilyAllowance ipv4,
                           FamilyAllowance ipv6) {
        std::vector<SocketAddress> addresses;
        for (const auto& host : hosts) addresses.push_back(SocketAddress::fromNumericHost(host, 9));
        SocketAddress chosen;
        EXPECT_TRUE(chooseDestination(addresses, ipv4, ipv6, &chosen, nullptr));
        return chosen.host();
    };
    EXPECT_EQ(chosen({"::1", "127.0.0.1"}, kAllowed, kAllowed), "::1");
    EXPECT_EQ(chosen({"::1", "127.0.0.1"}, kPreferred, kAllowed), "127.0.0.1");
    EXPECT_EQ(chosen({"10.0.0.1", "::2", "10.0.0.2", "::1"}, kAllowed, kPreferred), "::2");
}

// A packet that cannot go where it is sent fails alone, with the reason, and the socket sends on.
TEST(UdpSocketSend, ADestinationThatCannotBeUsedFailsThatPacketOnly) {
    Peer receiver;
    receiver.listen();
    Peer sender;
    sender.socket->sendData(bytes("lost"), "no-such-host.invalid", 9, 1.0, 1);
    sender.socket->sendData(bytes("b"), 1.0, 2);  // unconnected: no destination
    sender.socket->sendData(
        bytes("c"), SocketAddress::fromNumericHost("::1", receiver.socket->localPortIPv6()), -1, 3);
    sender.socket->sendData(bytes("d"), SocketAddress(), -1, 4);
    sender.socket->sendData(bytes("e"), "", receiver.socket->localPortIPv4(), -1, 5);
    // A resolver that cannot reach its server may take its full retry time to say no.
    ASSERT_TRUE(sender.waitForSends(1, 4, 60s));
    const Texts failures = sender.failures();
    ASSERT_EQ(failures.size(), 4u);
    // The resolver's own code and text.
    const int lookup = std::stoi(failures[0].substr(2));
    EXPECT_EQ(failures[0], "1 " + std::to_string(lookup) + ": " + gai_strerror(lookup));
    EXPECT_EQ(Texts(failures.begin() + 1, failures.end()),
              (Texts{"2 1: You must specify destination of packet for a non-connected socket",
                     "4 2: The address param is not a valid IPv4 or IPv6 socket address.",
                     "5 2: The host param is nil. Should be domain name or IP address string."}));
    EXPECT_EQ(sender.sent(), (Tags{3}));
    ASSERT_TRUE(receiver.waitForReceived(1));
    EXPECT_EQ(receiver.texts(), (Texts{"c"}));
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

// While the delegate falls behind, the socket stops reading at its backlog limit and leaves what
// comes in the kernel's buffer, which is made larger to hold a burst of several read batches.
// Once the delegate catches up the burst arrives complete and in order; empty datagrams are
// skipped and overlong ones cut to the limit, the next one whole.
TEST(UdpSocketReceive, BurstWaitsInTheKernelWhileTheDelegateFallsBehindThenArrivesWhole) {
    Peer receiver;
    receiver.socket->setIPv6Enabled(false);
    receiver.socket->setMaxReceiveIPv4BufferSize(16);
    receiver.socket->setMaxReceiveBacklog(1);
    UdpSocketError error;
    ASSERT_TRUE(receiver.socket->setKernelReceiveBufferSize(4 << 20, &error))
        << error.description();
    ASSERT_TRUE(receiver.socket->bindToPort(0, "localhost", &error)) << error.description();
    EXPECT_EQ(receiver.socket->kernelReceiveBufferSize(), 4u << 20);
    const int fd = receiver.socket->socket4FD();
    int granted = 0;
    socklen_t length = sizeof granted;
    ASSERT_EQ(::getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &granted, &length), 0);
    // Above the default (twice the send limit); without privilege the system's cap bounds it.
    EXPECT_GT(granted, 2 * 65535);

    std::promise<void> caughtUp;
    receiver.delegateQueue->async([behind = caughtUp.get_future().share()] { behind.wait(); });
    ASSERT_TRUE(receiver.socket->beginReceiving(&error)) << error.description();
    const auto kernelIsEmpty = [fd] {
        char byte;
        return ::recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) < 0;
    };
    test::UdpPeer sender;
    const auto port = receiver.socket->localPortIPv4();
    sender.sendTo(port, bytes("first"));
    ASSERT_TRUE(tcpTest::eventually(kernelIsEmpty));
    // Small datagrams take about a kilobyte each in the kernel's accounting.
    const int kCount = granted >= 4 << 20 ? 3000 : 200;
    Texts expected{"first"};
    for (int i = 0; i < kCount; ++i) {
        std::string datagram = i == 100 ? "" : std::to_string(i);
        if (i == 101) datagram = "101-and-then-much-too-long";
        sender.sendTo(port, bytes(datagram));
        if (i != 100) expected.push_back(datagram.substr(0, 16));
    }
    EXPECT_FALSE(tcpTest::eventually(kernelIsEmpty, 300ms));
    caughtUp.set_value();
    ASSERT_TRUE(receiver.waitForReceived(kCount));
    EXPECT_EQ(receiver.texts(), expected);
    const SocketAddress from =
        receiver.recorder->read([&] { return receiver.recorder->received.back().from; });
    std::string host;
    std::uint16_t fromPort = 0;
    ASSERT_TRUE(UdpSocket::getHost(&host, &fromPort, from));
    EXPECT_EQ(host + ":" + std::to_string(fromPort), "127.0.0.1:" + std::to_string(sender.port()));
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

// Reports go through the delegate queue, never inline. A close reports once, without error, and
// only when there were descriptors; closeAfterSending first sends what is queued.
TEST(UdpSocketDelegate, CallbacksAreNeverInlineAndACloseReportsOnce) {
    auto mainQueue = std::make_shared<ManualQueue>();
    Peer peer(mainQueue);
    peer.socket->close();  // nothing open yet
    peer.socket->setIPv6Enabled(false);
    UdpSocketError error;
    ASSERT_TRUE(peer.socket->bindToPort(0, "127.0.0.1", &error)) << error.description();
    ASSERT_TRUE(peer.socket->beginReceiving(&error)) << error.description();
    peer.socket->sendData(bytes("self"),
                          SocketAddress::fromNumericHost("127.0.0.1", peer.socket->localPortIPv4()),
                          1.0, 5);
    peer.socket->performBlock([] {});  // the send (no lookup needed) has happened by now
    EXPECT_GE(mainQueue->pending(), 1u);
    EXPECT_TRUE(peer.sent().empty());
    peer.socket->close();
    EXPECT_TRUE(peer.closes().empty());
    EXPECT_TRUE(peer.socket->isClosed());
    EXPECT_TRUE(mainQueue->drainUntil([&] { return !peer.closes().empty(); }, 5s));
    EXPECT_EQ(peer.sent(), (Tags{5}));
    EXPECT_EQ(peer.closes(), Texts{"no error"});
    EXPECT_TRUE(peer.recorder->read([&] { return peer.recorder->allOnDelegateQueue; }));

    Peer sender, receiver;
    receiver.listen(false);
    sender.socket->sendData(bytes("last"), "127.0.0.1", receiver.socket->localPortIPv4(), 1.0, 9);
    sender.socket->closeAfterSending();
    ASSERT_TRUE(sender.recorder->waitFor([&] { return !sender.recorder->closes.empty(); }));
    EXPECT_EQ(sender.sent(), (Tags{9}));
    EXPECT_EQ(sender.closes(), Texts{"no error"});
    ASSERT_TRUE(receiver.waitForReceived(1));
    // The close released the port: a socket that shares no port takes it.
    sender.socket->performBlock([] {});
    test::UdpPeer taker(
        receiver.recorder->read([&] { return receiver.recorder->received[0].from.port(); }));
    // A closed socket can be bound again.
    EXPECT_TRUE(sender.socket->bindToPort(0, &error)) << error.description();
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
    ASSERT_TRUE(client.recorder->waitFor([&] { return !client.recorder->connects.empty(); }));
    EXPECT_EQ(client.socket->connectedHost() + ":" + std::to_string(client.socket->connectedPort()),
              "127.0.0.1:" + std::to_string(serverPort));
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
        [&] { return !unresolved.recorder->connects.empty(); }, 60s));
    EXPECT_TRUE(unresolved.recorder->read([&] { return unresolved.recorder->connects[0]; })
                    .starts_with("kCFStreamErrorDomainNetDB "));
    EXPECT_FALSE(unresolved.socket->connectToAddress(SocketAddress(), &error));
}

TEST(UdpSocketConfiguration, LimitsAreClampedAndQueueMarksRunInline) {
    Peer peer;
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
}

TEST(UdpSocketDeathTest, ProgrammingErrorsStopWithTheirText) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    SocketAddress chosen;
    EXPECT_DEATH(chooseDestination({}, kAllowed, kAllowed, &chosen, nullptr),
                 "Expected at least one address");
    EXPECT_DEATH(chooseDestination({SocketAddress()}, kAllowed, kAllowed, &chosen, nullptr),
                 "Addresses array contains invalid address");
    EXPECT_DEATH(chooseDestination({SocketAddress::fromNumericHost("::1", 9)}, kPreferred,
                                   kPreferred, &chosen, nullptr),
                 "Invalid config \\(cannot prefer both IPv4 and IPv6\\)");
    EXPECT_DEATH(UdpSocket::create({}, nullptr, GlobalQueue::get()),
                 "The given socketQueue parameter must not be a concurrent queue\\.");
    EXPECT_DEATH(UdpSocket::create()->setReceiveFilter(
                     [](const Bytes&, const SocketAddress&, std::any&) { return true; }, nullptr),
                 "Must provide a dispatch_queue in which to run the filter block\\.");
}

}  // namespace
}  // namespace kavrin
