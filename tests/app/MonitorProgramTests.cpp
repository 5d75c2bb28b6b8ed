// The built monitor run as its own process, as scripts/run starts it: headless in app_tests, and
// on the private desktop in app_desktop_tests (KAVRIN_DESKTOP). Its pings are read off the wire,
// its stdout off a pipe and its history out of its file.

#include <QElapsedTimer>
#include <QFileInfo>
#include <QSettings>
#include <QtTest/QTest>

#include "PrivateEnvironment.hpp"
#include "osc/codec/OSCBundle.hpp"
#include "tests/UdpPeer.hpp"
#include "tests/transport/OpensslProcess.hpp"

namespace kavrin {
#ifdef KAVRIN_DESKTOP
namespace test {
// The display the desktop tests run on, e.g. ":1", as their main() started it; empty when none.
const std::string& desktopDisplay();
}  // namespace test
#endif
namespace {

using namespace std::chrono_literals;
using tcpTest::ChildProcess;
using ::testing::HasSubstr;

// Pings go to `pingPort` on loopback; the monitor listens on `inPort`.
class MonitorProgramTest : public ::testing::Test {
  protected:
    void SetUp() override {
#ifdef KAVRIN_DESKTOP
        if (test::desktopDisplay().empty()) GTEST_SKIP() << "Xvfb is not installed";
#endif
        QSettings stored(environment.settingsFile(), QSettings::IniFormat);
        stored.setValue("ip", "127.0.0.1");
        stored.setValue("OutPort", pingPort);
        stored.setValue("InPort", inPort);
    }

    // The monitor inherits this process's environment: the private one, the platform and the
    // display.
    void startMonitor() {
        std::vector<std::string> variables;
#ifdef KAVRIN_DESKTOP
        // Under AddressSanitizer the X and D-Bus libraries keep memory until exit, which a leak
        // check would call the monitor's; its own leaks are checked headless.
        const char* asan = std::getenv("ASAN_OPTIONS");
        variables.push_back("ASAN_OPTIONS=" + std::string(asan ? asan : "") + ":detect_leaks=0");
#endif
        monitor = std::make_unique<ChildProcess>(KAVRIN_MONITOR_PATH, std::vector<std::string>{},
                                                 ChildProcess::Errors::separate, variables);
        sinceStart.start();
    }

    test::PrivateEnvironment environment;
    std::uint16_t pingPort = test::freeUdpPort();
    std::uint16_t inPort = test::freeUdpPort();
    const std::string started = "OSC Server started on port " + std::to_string(inPort);
    std::unique_ptr<ChildProcess> monitor;
    QElapsedTimer sinceStart;
};

TEST_F(MonitorProgramTest, PingsEveryTwoSecondsAndPrintsExactlyTheLinesItAlwaysHas) {
    test::UdpPeer console(pingPort);
    startMonitor();
    const std::string sent = "Sent OSC ping to 127.0.0.1:" + std::to_string(pingPort) +
                             " \xE2\x86\x92 pattern /eos/ping";
    EXPECT_EQ(monitor->nextLine(10s), started);

    const auto ping = console.receive(6s);
    ASSERT_TRUE(ping.has_value()) << "no ping within 6 s";
    EXPECT_GE(sinceStart.elapsed(), 1900) << "the first ping waits one interval";
    EXPECT_LE(sinceStart.elapsed(), 4000);
    EXPECT_EQ(*ping, test::oscMessageBytes("/eos/ping"));
    EXPECT_EQ(monitor->nextLine(10s), sent);
    const std::vector<std::vector<std::uint8_t>> replies = {
        OSCMessage("/eos/out/ping/extra", {7}).rawData(),
        OSCMessage("/other", {std::string("hi")}).rawData(),
        {'n', 'o', 't', ' ', 'o', 's', 'c'},
        OSCBundle(OSCTimeTag::immediate(), {OSCMessage("/a"), OSCMessage("/b")}).rawData(),
    };
    for (const auto& datagram : replies) console.sendTo(inPort, datagram);
    monitor->linesThrough("Received OSC message: OSCMessage(\"/b\")");
    monitor->nextLine(10s);
    ASSERT_TRUE(console.receive(6s).has_value());
    EXPECT_EQ(monitor->nextLine(10s), sent);

    // SIGTERM goes through the quit flow, the tray icon giving Qt nothing to warn about: the
    // program ends normally, having made its store and kept its settings.
    EXPECT_EQ(monitor->stop(10s), 0) << monitor->errors();
    EXPECT_THAT(monitor->errors(), ::testing::Not(HasSubstr("QSystemTrayIcon")));
    EXPECT_TRUE(QFileInfo::exists(environment.storeFile()));
    EXPECT_EQ(QSettings(environment.settingsFile(), QSettings::IniFormat).value("InPort").toInt(),
              inPort);
    const std::string noMatch =
        "No match for expected pattern '/eos/out/ping'. OSCgood remains false\n";
    EXPECT_EQ(monitor->output(),
              started + "\n" + sent + "\n" +
                  "Received OSC message: OSCMessage(\"/eos/out/ping/extra\") with values:\n"
                  "  Int32: 7\n"
                  "Matched expected pattern '/eos/out/ping'. Setting OSCgood = true\n"
                  "Received OSC message: OSCMessage(\"/other\") with values:\n"
                  "  String: hi\n" +
                  noMatch + "Received OSC message: OSCMessage(\"/a\")\n" + noMatch +
                  "Received OSC message: OSCMessage(\"/b\")\n" + noMatch + sent + "\n");
}

TEST_F(MonitorProgramTest, AStoredPortOutOfRangeStopsTheProgramAtTheFirstTick) {
    QSettings(environment.settingsFile(), QSettings::IniFormat).setValue("OutPort", 70000);
    startMonitor();
    // Exits on its own, not by a signal, having sent and printed nothing more.
    EXPECT_THAT(monitor->waitForExit(10s),
                ::testing::Optional(::testing::AllOf(::testing::Gt(0), ::testing::Lt(128))));
    EXPECT_EQ(monitor->output(), started + "\n");
    EXPECT_THAT(monitor->errors(),
                HasSubstr("kavrin: fatal error: outgoing port 70000 is outside 0...65535\n"));
}

TEST_F(MonitorProgramTest, TheHistoryRecordsEachOutageAndTheNextStartClosesWhatACrashLeftOpen) {
    startMonitor();
    // Two ticks answered, then two not. A tick shows the reply to the ping before it, so ticks 1
    // and 4 are red, 2 and 3 green.
    ChildProcess responder(KAVRIN_RESPONDER_PATH, {"--listen", std::to_string(pingPort),
                                                   "--reply-port", std::to_string(inPort)});
    for (int tick = 0; tick < 2; ++tick) {
        monitor->linesThrough("Sent OSC ping");
        monitor->linesThrough("Matched");
    }
    ASSERT_TRUE(responder.stop(5s, SIGKILL));
    monitor->linesThrough("Sent OSC ping");
    monitor->linesThrough("Sent OSC ping");
    // Each outage: how long until it ended (-1 while open), how it ended, and whether it began
    // with its run.
    const QString file = environment.dataHome() + "/Kavrin/history.sqlite";
    const char* const outages =
        "SELECT IFNULL(o.ended_at - o.started_at, -1), IFNULL(o.ended_by, ''), "
        "o.started_at = r.started_at FROM outages o JOIN runs r ON r.id = o.run ORDER BY o.id";
    test::SqliteFile::Rows rows;
    const auto secondOutageEndedBy = [&](const std::string& end) {
        return QTest::qWaitFor(
            [&] {
                rows = test::SqliteFile(file, SQLITE_OPEN_READONLY).rows(outages);
                return rows.size() >= 2 && rows[1][1] == end;
            },
            5000);
    };
    ASSERT_TRUE(secondOutageEndedBy("")) << "the paint of tick 4 is kept";
    ASSERT_TRUE(monitor->stop(5s, SIGKILL));  // a crash during the outage

    startMonitor();
    ASSERT_TRUE(secondOutageEndedBy("crash")) << "the next start closes what the crash left open";
    EXPECT_EQ(monitor->stop(10s, SIGINT), 0) << "quits as on SIGTERM; " << monitor->errors();
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[0][2], "1") << "down from the first paint";
    EXPECT_NEAR(std::stoll(rows[0][0]), 2000, 500);
    EXPECT_EQ(rows[0][1], "recovered");
    EXPECT_EQ(rows[1], (std::vector<std::string>{"0", "crash", "0"}))
        << "the crash came before the next paint";
}

}  // namespace
}  // namespace kavrin
