#include <QApplication>
#include <QLabel>
#include <QSystemTrayIcon>
#include <QtTest/QTest>
#include <regex>

#include "MonitorHarness.hpp"
#include "PrivateEnvironment.hpp"
#include "SqliteFile.hpp"
#include "app/LinkLight.hpp"
#include "osc/codec/OSCBundle.hpp"

namespace kavrin {
namespace test {
// The display the tests run on, e.g. ":1", as main.cpp started it; empty when there is none.
const std::string& desktopDisplay();
}  // namespace test
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;

bool noDesktop() {
    return test::desktopDisplay().empty();
}

// The monitor in this process, on the test's desktop.
class MonitorWindowTest : public test::MonitorHarness {
  protected:
    void SetUp() override {
        if (noDesktop()) GTEST_SKIP() << "Xvfb is not installed";
        start();
        controller->show();
    }

    void tick() {
        MonitorHarness::tick();
        nextPing();
    }

    void reply() { MonitorHarness::reply("/eos/out/ping"); }

    // Seconds of "last reply N.N s ago".
    double replyAge() {
        std::smatch match;
        const std::string age = label("ReplyAgeLab").toStdString();
        EXPECT_TRUE(std::regex_match(age, match, std::regex(R"(last reply (\d+\.\d) s ago)")))
            << age;
        return match.empty() ? -1 : std::stod(match[1]);
    }

    static bool notificationShown() {
        for (QWidget* widget : QApplication::topLevelWidgets()) {
            if (widget->isVisible() && widget->inherits("QBalloonTip")) return true;
        }
        return false;
    }
};

TEST_F(MonitorWindowTest, TheTrayShowsTheLightAndNotifiesOnlyItsChanges) {
    ASSERT_TRUE(QSystemTrayIcon::isSystemTrayAvailable()) << "jwm's tray did not come up";
    EXPECT_EQ(controller->tray().icon(), nullptr) << "nothing before the first paint";
    const auto centre = [&] {
        return controller->tray().icon()->icon().pixmap(32, 32).toImage().pixelColor(16, 16);
    };

    tick();
    ASSERT_NE(controller->tray().icon(), nullptr);
    EXPECT_TRUE(controller->tray().icon()->isVisible());
    EXPECT_EQ(centre(), lightColour(false));
    EXPECT_EQ(controller->tray().icon()->toolTip(), "OSC IS DEAD!!!");
    QTest::qWait(300);
    EXPECT_FALSE(notificationShown()) << "the first paint is no change";

    reply();
    tick();
    EXPECT_EQ(centre(), lightColour(true));
    EXPECT_EQ(controller->tray().icon()->toolTip(), "OSC IS ALIVE");
    EXPECT_TRUE(QTest::qWaitFor(notificationShown, 5000));
}

TEST_F(MonitorWindowTest, ShowsTheRoundTripOfEachPingAndTheAgeOfTheLastReply) {
    EXPECT_EQ(label("RoundTripLab"), "round trip \u2013");
    EXPECT_EQ(label("ReplyAgeLab"), "no reply yet");
    EXPECT_EQ(label("DroppedLab"), "0 datagrams dropped (not OSC or undecodable)");

    reply();  // before any ping: an age, but no round trip
    EXPECT_EQ(label("RoundTripLab"), "round trip \u2013");
    tick();
    reply();
    EXPECT_THAT(label("RoundTripLab").toStdString(),
                MatchesRegex(R"(round trip [0-9]+(\.[0-9])? ms)"));
    const double fresh = replyAge();
    EXPECT_LT(fresh, 1.0);

    const QString roundTrip = label("RoundTripLab");
    EXPECT_TRUE(QTest::qWaitFor([&] { return replyAge() - fresh >= 1.0; }, 5000))
        << "counts up while no reply comes";
    reply();  // a second reply to the same ping times nothing new
    EXPECT_EQ(label("RoundTripLab"), roundTrip);
    EXPECT_TRUE(QTest::qWaitFor([&] { return replyAge() < 1.0; }, 1000)) << "shown within a second";
}

// The built monitor as its own process on the desktop, as a technician runs it.
class MonitorProgramTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (noDesktop()) GTEST_SKIP() << "Xvfb is not installed";
        environment.storeLoopbackLink(pingPort, inPort);
    }

    void startMonitor() {
        // Under AddressSanitizer the X and D-Bus libraries keep memory until exit, which a leak
        // check would call the monitor's; its own leaks are checked on the offscreen platform.
        const char* asan = std::getenv("ASAN_OPTIONS");
        monitor = environment.startMonitor(
            "xcb", {"DISPLAY=" + test::desktopDisplay(),
                    "ASAN_OPTIONS=" + std::string(asan ? asan : "") + ":detect_leaks=0"});
    }

    // Ends the monitor normally, its tray icon having given Qt nothing to warn about.
    void quit() {
        EXPECT_EQ(monitor->stop(10s), 0) << monitor->errors();
        EXPECT_THAT(monitor->errors(), Not(HasSubstr("QSystemTrayIcon")));
    }

    void startResponder() {
        responder = std::make_unique<tcpTest::ChildProcess>(
            KAVRIN_RESPONDER_PATH,
            std::vector<std::string>{"--listen", std::to_string(pingPort), "--reply-port",
                                     std::to_string(inPort)});
    }

    test::PrivateEnvironment environment;
    std::uint16_t pingPort = test::freeUdpPort();
    std::uint16_t inPort = test::freeUdpPort();
    std::unique_ptr<tcpTest::ChildProcess> monitor;
    std::unique_ptr<tcpTest::ChildProcess> responder;
};

TEST_F(MonitorProgramTest, PrintsExactlyTheLinesItAlwaysHasForAScriptedExchange) {
    test::UdpPeer console(pingPort);
    startMonitor();
    const std::string port = std::to_string(inPort);
    const std::string sent = "Sent OSC ping to 127.0.0.1:" + std::to_string(pingPort) +
                             " \xE2\x86\x92 pattern /eos/ping";
    EXPECT_EQ(monitor->nextLine(10s), "OSC Server started on port " + port);

    ASSERT_TRUE(console.receive(6s).has_value());
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
    quit();

    const std::string noMatch =
        "No match for expected pattern '/eos/out/ping'. OSCgood remains false\n";
    EXPECT_EQ(monitor->output(),
              "OSC Server started on port " + port + "\n" + sent + "\n" +
                  "Received OSC message: OSCMessage(\"/eos/out/ping/extra\") with values:\n"
                  "  Int32: 7\n"
                  "Matched expected pattern '/eos/out/ping'. Setting OSCgood = true\n"
                  "Received OSC message: OSCMessage(\"/other\") with values:\n"
                  "  String: hi\n" +
                  noMatch + "Received OSC message: OSCMessage(\"/a\")\n" + noMatch +
                  "Received OSC message: OSCMessage(\"/b\")\n" + noMatch + sent + "\n");
}

TEST_F(MonitorProgramTest, TheHistoryRecordsEachOutageAsTheResponderStopsAndStarts) {
    startMonitor();
    // Twice: two ticks answered, then two not. A tick shows the reply to the ping before it, so
    // ticks 1, 4, 5 and 8 are red, the others green.
    for (int round = 0; round < 2; ++round) {
        startResponder();
        for (int tick = 0; tick < 2; ++tick) {
            monitor->linesThrough("Sent OSC ping");
            monitor->linesThrough("Matched");
        }
        ASSERT_TRUE(responder->stop(5s, SIGKILL));
        monitor->linesThrough("Sent OSC ping");
        monitor->linesThrough("Sent OSC ping");
    }
    // Started, how long until it ended (-1 while open), how it ended, and whether at the start.
    test::SqliteFile::Rows rows;
    const auto thirdOutageEndedBy = [&](const std::string& end) {
        return QTest::qWaitFor(
            [&] {
                rows = test::SqliteFile(environment.dataHome() + "/Kavrin/history.sqlite",
                                        SQLITE_OPEN_READONLY)
                           .rows(
                               "SELECT IFNULL(o.ended_at - o.started_at, -1), "
                               "IFNULL(o.ended_by, ''), o.started_at = r.started_at "
                               "FROM outages o JOIN runs r ON r.id = o.run ORDER BY o.id");
                return rows.size() >= 3 && rows[2][1] == end;
            },
            5000);
    };
    ASSERT_TRUE(thirdOutageEndedBy("")) << "the paint of tick 8 is kept";
    ASSERT_TRUE(monitor->stop(5s, SIGKILL));  // a crash during the outage

    startMonitor();
    ASSERT_TRUE(thirdOutageEndedBy("crash")) << "the next start closes what the crash left open";
    EXPECT_EQ(monitor->stop(10s), 0) << monitor->errors();
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_EQ(rows[0][2], "1") << "down from the first paint";
    EXPECT_NEAR(std::stoll(rows[0][0]), 2000, 500);
    EXPECT_EQ(rows[0][1], "recovered");
    EXPECT_NEAR(std::stoll(rows[1][0]), 4000, 500) << "ticks 4 to 6";
    EXPECT_EQ(rows[1][1], "recovered");
    EXPECT_EQ(rows[2], (std::vector<std::string>{"0", "crash", "0"}))
        << "the crash came before the next paint";
}

}  // namespace
}  // namespace kavrin
