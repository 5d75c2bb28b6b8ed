#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <QApplication>
#include <QLabel>
#include <QProcess>
#include <QSystemTrayIcon>
#include <QtTest/QTest>
#include <chrono>
#include <regex>
#include <string>
#include <vector>

#include "MonitorHarness.hpp"
#include "MonitorProgram.hpp"
#include "PrivateEnvironment.hpp"
#include "XSession.hpp"
#include "app/LinkLight.hpp"

namespace kavrin {
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

    QString text(const char* label) { return widget<QLabel>(label)->text(); }

    void tick() {
        MonitorHarness::tick();
        nextPing();
    }

    void reply() { MonitorHarness::reply("/eos/out/ping"); }

    // Seconds of "last reply N.N s ago".
    double replyAge() {
        std::smatch match;
        const std::string age = text("ReplyAgeLab").toStdString();
        EXPECT_TRUE(std::regex_match(age, match, std::regex(R"(last reply (\d+\.\d) s ago)"))) << age;
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
    EXPECT_EQ(text("RoundTripLab"), "round trip \u2013");
    EXPECT_EQ(text("ReplyAgeLab"), "no reply yet");
    EXPECT_EQ(text("DroppedLab"), "0 datagrams dropped (not OSC or undecodable)");

    reply();  // before any ping: an age, but no round trip
    EXPECT_EQ(text("RoundTripLab"), "round trip \u2013");
    tick();
    reply();
    EXPECT_THAT(text("RoundTripLab").toStdString(), MatchesRegex(R"(round trip [0-9]+(\.[0-9])? ms)"));
    const double fresh = replyAge();
    EXPECT_LT(fresh, 1.0);

    const QString roundTrip = text("RoundTripLab");
    QTest::qWait(1200);
    EXPECT_GE(replyAge() - fresh, 1.0) << "counts up while no reply comes";
    reply();  // a second reply to the same ping times nothing new
    EXPECT_EQ(text("RoundTripLab"), roundTrip);
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
        QProcessEnvironment variables = QProcessEnvironment::systemEnvironment();
        variables.insert("QT_QPA_PLATFORM", "xcb");
        variables.insert("DISPLAY", QString::fromStdString(test::desktopDisplay()));
        // Under AddressSanitizer the X and D-Bus libraries keep memory until exit, which a leak
        // check would call the monitor's; its own leaks are checked on the offscreen platform.
        variables.insert("ASAN_OPTIONS", variables.value("ASAN_OPTIONS") + ":detect_leaks=0");
        monitor.startMonitor(environment, variables);
    }

    std::string nextLine() { return monitor.nextLine(); }
    void readThrough(const std::string& prefix) { monitor.linesThrough(prefix); }

    // Ends the monitor, whose tray icon gave Qt nothing to warn about.
    void quit() { EXPECT_THAT(monitor.quit(), Not(HasSubstr("QSystemTrayIcon"))); }

    void startResponder() {
        responder.startProgram(KAVRIN_RESPONDER_PATH, {"--listen", QString::number(pingPort),
                                                    "--reply-port", QString::number(inPort)});
    }

    void stopResponder() {
        responder.kill();
        ASSERT_TRUE(responder.waitForFinished(5000));
    }

    test::PrivateEnvironment environment;
    std::uint16_t pingPort = test::freeUdpPort();
    std::uint16_t inPort = test::freeUdpPort();
    test::MonitorProgram monitor;
    test::MonitorProgram responder;
};

TEST_F(MonitorProgramTest, PrintsExactlyTheLinesItAlwaysHasForAScriptedExchange) {
    test::UdpPeer console(pingPort);
    startMonitor();
    const std::string port = std::to_string(inPort);
    const std::string sent = "Sent OSC ping to 127.0.0.1:" + std::to_string(pingPort) +
                             " \xE2\x86\x92 pattern /eos/ping";
    EXPECT_EQ(nextLine(), "OSC Server started on port " + port);

    ASSERT_TRUE(console.receive(6s).has_value());
    EXPECT_EQ(nextLine(), sent);
    // /eos/out/ping/extra ,i 7; /other ,s "hi"; a datagram that is not OSC; a bundle of /a, /b.
    const std::vector<std::vector<std::uint8_t>> replies = {
        {'/', 'e', 'o', 's', '/', 'o', 'u', 't', '/', 'p', 'i', 'n', 'g', '/', 'e', 'x', 't', 'r',
         'a', 0, ',', 'i', 0, 0, 0, 0, 0, 7},
        {'/', 'o', 't', 'h', 'e', 'r', 0, 0, ',', 's', 0, 0, 'h', 'i', 0, 0},
        {'n', 'o', 't', ' ', 'o', 's', 'c'},
        {'#', 'b', 'u', 'n', 'd', 'l', 'e', 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 8, '/', 'a', 0, 0,
         ',', 0, 0, 0, 0, 0, 0, 8, '/', 'b', 0, 0, ',', 0, 0, 0},
    };
    for (const auto& datagram : replies) console.sendTo(inPort, datagram);
    readThrough("Received OSC message: OSCMessage(\"/b\")");
    nextLine();
    ASSERT_TRUE(console.receive(6s).has_value());
    EXPECT_EQ(nextLine(), sent);
    quit();

    const std::string noMatch = "No match for expected pattern '/eos/out/ping'. OSCgood remains false\n";
    EXPECT_EQ(monitor.printed.toStdString(),
              "OSC Server started on port " + port + "\n" + sent + "\n" +
                  "Received OSC message: OSCMessage(\"/eos/out/ping/extra\") with values:\n"
                  "  Int32: 7\n"
                  "Matched expected pattern '/eos/out/ping'. Setting OSCgood = true\n"
                  "Received OSC message: OSCMessage(\"/other\") with values:\n"
                  "  String: hi\n" +
                  noMatch + "Received OSC message: OSCMessage(\"/a\")\n" + noMatch +
                  "Received OSC message: OSCMessage(\"/b\")\n" + noMatch + sent + "\n");
}

// Reads the outages of the history file: started, ended and how, oldest first.
struct Row {
    std::int64_t started;
    std::int64_t ended;
    std::string endedBy;
};

std::vector<Row> outageRows(const QString& file, std::int64_t* runStart) {
    std::vector<Row> rows;
    sqlite3* db = nullptr;
    EXPECT_EQ(sqlite3_open_v2(file.toUtf8().constData(), &db, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK);
    sqlite3_busy_timeout(db, 5000);  // read while the monitor writes: wait for its transaction
    sqlite3_stmt* statement = nullptr;
    EXPECT_EQ(sqlite3_prepare_v2(db,
                                 "SELECT o.started_at, IFNULL(o.ended_at, -1), IFNULL(o.ended_by, ''), "
                                 "r.started_at FROM outages o JOIN runs r ON r.id = o.run "
                                 "ORDER BY o.id",
                                 -1, &statement, nullptr),
              SQLITE_OK)
        << sqlite3_errmsg(db);
    while (sqlite3_step(statement) == SQLITE_ROW) {
        rows.push_back({sqlite3_column_int64(statement, 0), sqlite3_column_int64(statement, 1),
                        reinterpret_cast<const char*>(sqlite3_column_text(statement, 2))});
        if (rows.size() == 1) *runStart = sqlite3_column_int64(statement, 3);
    }
    sqlite3_finalize(statement);
    sqlite3_close(db);
    return rows;
}

TEST_F(MonitorProgramTest, TheHistoryRecordsEachOutageAsTheResponderStopsAndStarts) {
    startResponder();
    startMonitor();
    readThrough("Sent OSC ping");  // tick 1: red, the first reply comes after the paint
    readThrough("Matched");
    readThrough("Sent OSC ping");  // tick 2: green
    readThrough("Matched");
    stopResponder();
    readThrough("Sent OSC ping");  // tick 3: green from the reply to tick 2's ping
    readThrough("Sent OSC ping");  // tick 4: red
    startResponder();
    readThrough("Sent OSC ping");  // tick 5: red, tick 4's ping went unanswered
    readThrough("Matched");
    readThrough("Sent OSC ping");  // tick 6: green
    readThrough("Matched");
    stopResponder();
    readThrough("Sent OSC ping");  // tick 7: green from the reply to tick 6's ping
    readThrough("Sent OSC ping");  // tick 8: red
    std::int64_t runStart = 0;
    std::vector<Row> rows;
    const auto thirdOutageEndedBy = [&](const std::string& end) {
        return QTest::qWaitFor(
            [&] {
                rows = outageRows(environment.dataHome() + "/Kavrin/history.sqlite", &runStart);
                return rows.size() >= 3 && rows[2].endedBy == end;
            },
            5000);
    };
    ASSERT_TRUE(thirdOutageEndedBy("")) << "the paint of tick 8 is kept";
    monitor.kill();  // a crash during the outage
    ASSERT_TRUE(monitor.waitForFinished(5000));

    monitor.setStandardOutputFile(QProcess::nullDevice());
    startMonitor();
    ASSERT_TRUE(thirdOutageEndedBy("crash")) << "the next start closes what the crash left open";
    monitor.quit();
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_EQ(rows[0].started, runStart) << "down from the first paint";
    EXPECT_NEAR(rows[0].ended - rows[0].started, 2000, 500);
    EXPECT_EQ(rows[0].endedBy, "recovered");
    EXPECT_NEAR(rows[1].ended - rows[1].started, 4000, 500) << "ticks 4 to 6";
    EXPECT_EQ(rows[1].endedBy, "recovered");
    EXPECT_EQ(rows[2].ended, rows[2].started) << "the crash came before the next paint";
    EXPECT_EQ(rows[2].endedBy, "crash");
}

}  // namespace
}  // namespace kavrin
