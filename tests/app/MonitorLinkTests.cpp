// The monitor's link to a console over each transport, set up through the preference keys, against
// the ping responder and against independent peers (liblo in liblo_console, the npm package osc in
// slip_peer.js) run as child processes; and the link's faults against a raw TCP peer. Ticks are
// driven directly; a wait stands in for the real time between ticks only where the link needs
// it (a reconnection), bounded by one tick.

#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QtTest/QTest>
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "MonitorHarness.hpp"
#include "app/LinkConnection.hpp"
#include "app/RoundTripPlot.hpp"
#include "osc/codec/OSCMessage.hpp"
#include "tests/tools/NpmPeers.hpp"
#include "tests/transport/OpensslProcess.hpp"
#include "tests/transport/TcpTestSupport.hpp"

namespace kavrin {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using tcpTest::ChildProcess;

// A plain TCP listener on 127.0.0.1, independent of the library under test, that takes one
// connection at a time and writes to it whatever bytes a test gives: a console gone wrong.
class TcpPeer {
  public:
    TcpPeer() : listener_(tcpTest::rawListen("127.0.0.1", &port_, 4)) {
        EXPECT_TRUE(listener_) << std::strerror(errno);
    }

    std::uint16_t port() const { return port_; }

    // Takes the next connection, hanging up the one before; false when none comes in time.
    bool accept() {
        hangUp();
        connection_ = tcpTest::rawAccept(listener_.get(), 5s);
        return bool(connection_);
    }
    void write(const std::vector<std::uint8_t>& bytes) {
        EXPECT_TRUE(tcpTest::sendAll(connection_.get(), bytes)) << std::strerror(errno);
    }
    // Some bytes the monitor sent, or none within 5 s.
    std::vector<std::uint8_t> read() {
        std::vector<std::uint8_t> bytes(65536);
        const ssize_t size = tcpTest::waitReadable(connection_.get(), 5s)
                                 ? ::recv(connection_.get(), bytes.data(), bytes.size(), 0)
                                 : 0;
        bytes.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
        return bytes;
    }
    void hangUp() { connection_ = tcpTest::Fd(); }

  private:
    std::uint16_t port_ = 0;
    tcpTest::Fd listener_;
    tcpTest::Fd connection_;
};

// A link and a peer that answers it: the program, with "PORT" for the port it listens on, "IN"
// for the monitor's listening port and "MODULES" for the npm peer's modules, and its first
// words once it is ready.
struct LinkSetup {
    const char *name, *transport;
    bool pingFromInPort, numberPings;
    const char* program;
    std::vector<std::string> arguments;
    const char* ready;
};

// Ping, reply and light, the same in every setup.
class MonitorLinkTest : public test::MonitorHarness, public ::testing::WithParamInterface<LinkSetup> {
  protected:
    void SetUp() override {
        const LinkSetup& setup = GetParam();
        if (*setup.program == 0) GTEST_SKIP() << "liblo-dev is not installed";
        if (std::string(setup.program) == "node") {
            if (!test::onPath("node") || !test::onPath("npm")) GTEST_SKIP() << "node or npm is not installed";
            modules = test::npmPeers();
            ASSERT_FALSE(modules.empty());
        }
        stream = std::string(setup.transport) != "udp";
        port = stream ? TcpPeer().port() : test::freeUdpPort();
        settings->store().setValue("OutPort", port);
        settings->store().setValue("Transport", setup.transport);
        settings->store().setValue("PingFromInPort", setup.pingFromInPort);
        settings->store().setValue("NumberPings", setup.numberPings);
    }

    // The setup's peer, answering; null when it would not start.
    std::unique_ptr<ChildProcess> startPeer() {
        std::vector<std::string> arguments = GetParam().arguments;
        for (auto& argument : arguments) {
            argument = argument == "PORT" ? std::to_string(port)
                       : argument == "IN" ? std::to_string(inPort)
                       : argument == "MODULES" ? modules
                                               : argument;
        }
        auto peer = std::make_unique<ChildProcess>(GetParam().program, arguments);
        if (!peer->waitForOutput(GetParam().ready, 20s)) {
            ADD_FAILURE() << "the peer did not start: " << peer->output();
            return nullptr;
        }
        return peer;
    }

    bool connected(int boundMs) {
        return QTest::qWaitFor(
            [&] { return controller->link().connection().state == LinkConnection::State::connected; },
            boundMs);
    }

    // Ticks until a reply matched, and once more: the light this shows.
    QString answeredTick() {
        const std::size_t before = lines.size();
        EXPECT_THAT(tick(), StartsWith("Sent OSC ping to 127.0.0.1:" + std::to_string(port)));
        EXPECT_TRUE(logged("Matched expected pattern '/eos/out/ping'", before)) << "no reply";
        tick();
        return status();
    }

    std::string modules;
    bool stream = false;
    std::uint16_t port = 0;
};

TEST_P(MonitorLinkTest, TheLightFollowsTheConsoleTickByTick) {
    auto peer = startPeer();
    ASSERT_TRUE(peer);
    start();
    // The connection is made at start, well within the first tick's 2 s.
    if (stream) {
        ASSERT_TRUE(connected(2000)) << label("ConnectionLab").toStdString();
    }

    const std::size_t first = lines.size();
    EXPECT_EQ(answeredTick(), "OSC IS ALIVE") << "green by the 2nd tick after the peer answers";
    if (GetParam().numberPings) {
        EXPECT_THAT(lines[first + 1], HasSubstr("Int32: 1")) << "the ping's number, echoed";
    }
    EXPECT_THAT(label("RoundTripLab").toStdString(), ::testing::EndsWith(" ms"));

    // The peer stops once it has answered the last ping, and the link notices at once: both
    // well within the two seconds between real ticks.
    EXPECT_TRUE(logged("Matched expected pattern", lines.size() - 1));
    peer.reset();
    if (stream) {
        EXPECT_TRUE(QTest::qWaitFor([&] { return !connected(0); }, 2000));
    }
    tick();
    const std::string second = tick();
    EXPECT_EQ(status(), "OSC IS DEAD!!!") << "red by the 2nd tick after the peer stops";
    if (stream) {
        EXPECT_THAT(second, StartsWith("ERROR sending ping: not connected to 127.0.0.1:"));
    }

    peer = startPeer();
    ASSERT_TRUE(peer);
    if (stream) {
        tick();  // may come before the link connects again, but the next one may not
        EXPECT_TRUE(connected(2000)) << "connected again within a tick";
    }
    EXPECT_EQ(answeredTick(), "OSC IS ALIVE")
        << (stream ? "green by the 3rd tick after the peer accepts again" : "and again");
}

const char* const responder = KAVRIN_RESPONDER_PATH;
const char* const slipPeer = KAVRIN_SOURCE_DIR "/tests/tools/slip_peer.js";

INSTANTIATE_TEST_SUITE_P(
    Setups, MonitorLinkTest,
    ::testing::Values(
        LinkSetup{"UdpResponder", "udp", false, false, responder, {"--listen", "PORT", "--reply-port", "IN"}, "listening"},
        LinkSetup{"UdpFromInPortResponder", "udp", true, true, responder, {"--listen", "PORT", "--reply-to-sender"}, "listening"},
        LinkSetup{"TcpResponder", "tcp", false, true, responder, {"--listen", "PORT", "--tcp"}, "listening"},
        LinkSetup{"SlipResponder", "slip", false, false, responder, {"--listen", "PORT", "--slip"}, "listening"},
        LinkSetup{"UdpLiblo", "udp", false, true, KAVRIN_LIBLO_CONSOLE, {"udp", "PORT", "IN"}, "port "},
        LinkSetup{"UdpFromInPortLiblo", "udp", true, false, KAVRIN_LIBLO_CONSOLE, {"udp", "PORT"}, "port "},
        LinkSetup{"TcpLiblo", "tcp", false, false, KAVRIN_LIBLO_CONSOLE, {"tcp", "PORT"}, "port "},
        LinkSetup{"SlipNode", "slip", false, true, "node", {slipPeer, "MODULES", "answer", "PORT"}, "port "}),
    [](const ::testing::TestParamInfo<LinkSetup>& info) { return std::string(info.param.name); });

// The link against a console gone wrong: a raw TCP peer that writes what the test gives.
class MonitorLinkFaultsTest : public test::MonitorHarness {
  protected:
    // Waits until the connection's line contains `text`.
    ::testing::AssertionResult connection(const QString& text) {
        return shows("ConnectionLab", text, true);
    }
    // `packet` after its size.
    static std::vector<std::uint8_t> framed(std::vector<std::uint8_t> packet) {
        const auto size = static_cast<std::uint32_t>(packet.size());
        packet.insert(packet.begin(), {std::uint8_t(size >> 24), std::uint8_t(size >> 16),
                                       std::uint8_t(size >> 8), std::uint8_t(size)});
        return packet;
    }

    TcpPeer console;
};

TEST_F(MonitorLinkFaultsTest, ChangesAreStoredAtOnceAndUsedFromTheNextTickWhereNoPingWaits) {
    settings->store().setValue("Transport", "carrier pigeon");  // acts as udp, kept as stored
    start();
    EXPECT_EQ(widget<QComboBox>("TransportBox")->currentText(), "udp");
    test::UdpPeer otherSink;
    edit("IpText", "localhost");
    edit("OutPortText", "  " + QString::number(otherSink.port()) + "xyz");
    edit("OutMsgText", "/other/ping");
    EXPECT_EQ(settings->store().value("ip"), "localhost");
    EXPECT_EQ(settings->store().value("OutPort").toInt(), otherSink.port());
    EXPECT_EQ(settings->store().value("ping"), "/other/ping");
    EXPECT_EQ(tick(), "Sent OSC ping to localhost:" + std::to_string(otherSink.port()) +
                          " \xE2\x86\x92 pattern /other/ping");
    EXPECT_EQ(otherSink.receive(5s), test::oscMessageBytes("/other/ping"));
    EXPECT_EQ(settings->store().value("Transport"), "carrier pigeon");

    // Not a number: stored as 0 and used as such until the next start reads the default.
    edit("OutPortText", "abc");
    EXPECT_EQ(settings->store().value("OutPort").toInt(), 0);
    EXPECT_EQ(tick(), "Sent OSC ping to localhost:0 \xE2\x86\x92 pattern /other/ping");

    edit("IpText", "127.0.0.1");
    const auto nobody = QString::number(TcpPeer().port());
    edit("OutPortText", nobody);
    auto* transport = widget<QComboBox>("TransportBox");
    transport->setCurrentText("tcp");
    emit transport->activated(transport->currentIndex());
    widget<QCheckBox>("NumberPingsBox")->click();
    EXPECT_EQ(settings->store().value("Transport"), "tcp");
    EXPECT_EQ(settings->store().value("NumberPings").toString(), "true");
    EXPECT_TRUE(widget<QLabel>("ConnectionLab")->isHidden()) << "nothing changes before the tick";

    EXPECT_THAT(tick(), StartsWith("ERROR sending ping: not connected to 127.0.0.1:" +
                                   nobody.toStdString() + " over tcp: "));
    EXPECT_TRUE(connection("tcp 127.0.0.1:" + nobody + ": refused, retrying in"));

    edit("OutPortText", QString::number(console.port()));
    tick();  // connects to the console, and pings if that was quick
    ASSERT_TRUE(console.accept());
    ASSERT_TRUE(connection("tcp 127.0.0.1:" + QString::number(console.port()) + ": connected"));
    EXPECT_THAT(tick(), StartsWith("Sent OSC ping to 127.0.0.1:" + std::to_string(console.port())));
    // The first ping on the wire is numbered 1: the ticks that sent nothing used no number.
    const auto first = framed(OSCMessage("/other/ping", {1}).rawData());
    const auto read = console.read();
    EXPECT_TRUE(read.size() >= first.size() && std::equal(first.begin(), first.end(), read.begin()));
}

TEST_F(MonitorLinkFaultsTest, ABrokenConnectionCostsOnlyItselfAndTheWindowSaysWhy) {
    settings->store().setValue("OutPort", console.port());
    settings->store().setValue("Transport", "tcp");
    start();
    ASSERT_TRUE(console.accept());
    ASSERT_TRUE(connection("connected"));

    // A well-framed packet that is not OSC costs only itself.
    const std::size_t before = lines.size();
    console.write(framed({'a', 'b', 'c', 'd'}));
    console.write(framed(test::oscMessageBytes("/eos/out/ping")));
    EXPECT_TRUE(logged("Matched expected pattern", before));
    EXPECT_TRUE(shows("DroppedLab", "1 packet dropped", true));
    EXPECT_THAT(label("ConnectionLab").toStdString(), HasSubstr("connected"));

    // SLIP where sizes belong breaks the framing: the connection goes, and the window says why.
    console.write({0xC0, '/', 'e', 'o', 's', 0, 0, 0, ',', 0, 0, 0, 0xC0});
    EXPECT_TRUE(connection("closed (Frame size prefix is negative"));
    EXPECT_TRUE(connection("look like slip framing"));
    EXPECT_TRUE(connection("retrying in"));
    ASSERT_TRUE(console.accept()) << "connects again";

    // So does a hang-up in the middle of a packet.
    console.write({0, 0, 0, 16, '/', 'e', 'o'});
    ASSERT_TRUE(connection("connected"));
    console.hangUp();
    EXPECT_TRUE(connection("closed (Socket closed by remote peer)"));

    // A console that takes the pings and never answers leaves the light red.
    ASSERT_TRUE(console.accept());
    ASSERT_TRUE(connection(": connected"));
    for (int i = 0; i < 2; ++i) EXPECT_THAT(tick(), StartsWith("Sent OSC ping"));
    EXPECT_EQ(status(), "OSC IS DEAD!!!");
    EXPECT_FALSE(console.read().empty());

    // The plot shows the pings, the lost ones marked, the outage shaded.
    tick();
    const auto* plot = widget<RoundTripPlot>("RoundTripPlot");
    int pings = 0, lost = 0;
    ASSERT_TRUE(QTest::qWaitFor([&] {
        pings = lost = 0;
        for (const auto& bucket : plot->shown().buckets) {
            pings += bucket.pings;
            lost += bucket.lost;
        }
        return pings == 3;
    }, 5000)) << pings << " pings shown";
    EXPECT_EQ(lost, 2) << "all but the latest, still awaited";
    EXPECT_EQ(plot->shown().outages.size(), 1u);
}

}  // namespace
}  // namespace kavrin
