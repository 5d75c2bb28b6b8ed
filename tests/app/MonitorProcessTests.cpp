// The built monitor run as its own process, headless, as scripts/run starts it without a
// display: its pings are read off the wire and its stdout off a pipe.

#include <QElapsedTimer>
#include <QFileInfo>
#include <QSettings>

#include "PrivateEnvironment.hpp"
#include "tests/UdpPeer.hpp"

namespace kavrin {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;
using ::testing::StartsWith;

class MonitorProcessTest : public ::testing::Test {
  protected:
    MonitorProcessTest() { environment.storeLoopbackLink(pingSink->port(), inPort); }

    void startMonitor() {
        monitor = environment.startMonitor();
        sinceStart.start();
    }

    test::PrivateEnvironment environment;
    std::unique_ptr<test::UdpPeer> pingSink = std::make_unique<test::UdpPeer>();
    std::uint16_t inPort = test::freeUdpPort();
    std::unique_ptr<tcpTest::ChildProcess> monitor;
    QElapsedTimer sinceStart;
};

TEST_F(MonitorProcessTest, PingsEveryTwoSecondsAndLogsTheRepliesOfAResponder) {
    startMonitor();
    const std::string pingPort = std::to_string(pingSink->port());
    EXPECT_EQ(monitor->nextLine(10s), "OSC Server started on port " + std::to_string(inPort));

    const auto ping = pingSink->receive(6s);
    ASSERT_TRUE(ping.has_value()) << "no ping within 6 s";
    EXPECT_GE(sinceStart.elapsed(), 1900) << "the first ping waits one interval";
    EXPECT_LE(sinceStart.elapsed(), 4000);
    EXPECT_EQ(*ping, test::oscMessageBytes("/eos/ping"));
    EXPECT_EQ(monitor->nextLine(10s),
              "Sent OSC ping to 127.0.0.1:" + pingPort + " \xE2\x86\x92 pattern /eos/ping");

    pingSink.reset();  // the responder takes over its port
    tcpTest::ChildProcess responder(KAVRIN_RESPONDER_PATH,
                                    {"--listen", pingPort, "--reply-port", std::to_string(inPort),
                                     "--ping", "/eos/ping", "--reply", "/eos/out/ping"});

    // Each tick's reply is logged after the tick, and the log goes on until a reply matched.
    const auto lines = monitor->linesThrough("Matched expected pattern");
    ASSERT_GE(lines.size(), 3u);
    EXPECT_THAT(lines[0], StartsWith("Sent OSC ping to 127.0.0.1:" + pingPort));
    EXPECT_THAT(lines[lines.size() - 2], HasSubstr("/eos/out/ping"));
    EXPECT_EQ(lines.back(), "Matched expected pattern '/eos/out/ping'. Setting OSCgood = true");
    EXPECT_THAT(lines, ::testing::Contains(StartsWith("Received OSC message: ")));

    // SIGTERM goes through the quit flow: the store is made and the program ends normally.
    EXPECT_EQ(monitor->stop(10s), 0) << monitor->errors();
    EXPECT_TRUE(QFileInfo::exists(environment.storeFile()));
    EXPECT_EQ(QSettings(environment.settingsFile(), QSettings::IniFormat).value("InPort").toInt(),
              inPort);
}

TEST_F(MonitorProcessTest, AStoredPortOutOfRangeStopsTheProgramAtTheFirstTick) {
    QSettings(environment.settingsFile(), QSettings::IniFormat).setValue("OutPort", 70000);
    startMonitor();
    EXPECT_EQ(monitor->nextLine(10s), "OSC Server started on port " + std::to_string(inPort));

    // Exits on its own, not by a signal.
    EXPECT_THAT(monitor->waitForExit(10s),
                ::testing::Optional(::testing::AllOf(::testing::Gt(0), ::testing::Lt(128))));
    EXPECT_EQ(monitor->output(), "OSC Server started on port " + std::to_string(inPort) + "\n")
        << "nothing sent or printed";
    EXPECT_THAT(monitor->errors(),
                HasSubstr("kavrin: fatal error: outgoing port 70000 is outside 0...65535\n"));
    EXPECT_FALSE(pingSink->receive(0ms).has_value());
}

}  // namespace
}  // namespace kavrin
