// The monitor on a real desktop: a private Xvfb with jwm, whose tray the monitor uses, started by
// main() below. Every test is skipped when Xvfb is not installed (scripts/setup installs it).

#include <QApplication>
#include <QSystemTrayIcon>
#include <QtTest/QTest>
#include <regex>

#include "MonitorHarness.hpp"
#include "app/FatalError.hpp"
#include "app/LinkLight.hpp"
#include "tests/transport/OpensslProcess.hpp"

namespace kavrin {
namespace test {
std::string display;  // e.g. ":1"; empty when there is none

const std::string& desktopDisplay() {
    return display;
}
}  // namespace test
namespace {

// The monitor in this process, on the test's desktop.
class MonitorWindowTest : public test::MonitorHarness {
  protected:
    void SetUp() override {
        if (test::display.empty()) GTEST_SKIP() << "Xvfb is not installed";
        start();
        controller->show();
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

TEST_F(MonitorWindowTest, TheTrayShowsTheLightAndTheWindowTheRoundTripAndTheAgeOfTheLastReply) {
    ASSERT_TRUE(QSystemTrayIcon::isSystemTrayAvailable()) << "jwm's tray did not come up";
    EXPECT_EQ(controller->tray().icon(), nullptr) << "nothing before the first paint";
    const auto centre = [&] {
        return controller->tray().icon()->icon().pixmap(32, 32).toImage().pixelColor(16, 16);
    };
    EXPECT_EQ(label("ReplyAgeLab"), "no reply yet");
    reply();  // before any ping: an age, but no round trip
    EXPECT_EQ(label("RoundTripLab"), "round trip \u2013");

    tick();
    ASSERT_NE(controller->tray().icon(), nullptr);
    EXPECT_TRUE(controller->tray().icon()->isVisible());
    EXPECT_EQ(centre(), lightColour(true));
    EXPECT_EQ(controller->tray().icon()->toolTip(), "OSC IS ALIVE");
    QTest::qWait(300);
    EXPECT_FALSE(notificationShown()) << "the first paint is no change";

    reply();
    EXPECT_THAT(label("RoundTripLab").toStdString(),
                ::testing::MatchesRegex(R"(round trip [0-9]+(\.[0-9])? ms)"));
    const double fresh = replyAge();
    EXPECT_LT(fresh, 1.0);
    const QString roundTrip = label("RoundTripLab");
    EXPECT_TRUE(QTest::qWaitFor([&] { return replyAge() - fresh >= 1.0; }, 5000))
        << "counts up while no reply comes";
    reply();  // a second reply to the same ping times nothing new
    EXPECT_EQ(label("RoundTripLab"), roundTrip);
    EXPECT_TRUE(QTest::qWaitFor([&] { return replyAge() < 1.0; }, 1000)) << "shown within a second";

    tick();  // green again: no change
    tick();
    EXPECT_EQ(centre(), lightColour(false));
    EXPECT_EQ(controller->tray().icon()->toolTip(), "OSC IS DEAD!!!");
    EXPECT_TRUE(QTest::qWaitFor(notificationShown, 5000));
}

}  // namespace
}  // namespace kavrin

// Under AddressSanitizer: what the X, D-Bus and font libraries keep until exit is theirs.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libxcb\nleak:libX11\nleak:libdbus-1\nleak:libfontconfig\nleak:libQt6XcbQpa\n";
}

int main(int argc, char* argv[]) {
    using kavrin::tcpTest::ChildProcess;
    using kavrin::test::display;
    kavrin::installMonitorFatalErrorHandler();
    ::testing::InitGoogleTest(&argc, argv);
    // A private X server (Xvfb) and a window manager with a system tray (jwm), ended after the
    // tests, the window manager first. Listing the tests (as the build does to find them) needs
    // no desktop.
    std::unique_ptr<ChildProcess> server, windowManager;
    if (!GTEST_FLAG_GET(list_tests)) {
        // Xvfb picks a free display and writes its number to the descriptor given: its output.
        server = std::make_unique<ChildProcess>(
            "Xvfb",
            std::vector<std::string>{"-displayfd", "1", "-screen", "0", "1024x768x24", "-nolisten",
                                     "tcp"},
            ChildProcess::Errors::separate);
        const auto number = server->nextLine(std::chrono::seconds(10));
        if (number && !number->empty()) display = ":" + *number;
    }
    if (display.empty()) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    } else {
        windowManager =
            std::make_unique<ChildProcess>("jwm", std::vector<std::string>{"-display", display});
        qputenv("DISPLAY", QByteArray::fromStdString(display));
        qputenv("QT_QPA_PLATFORM", "xcb");
    }
    kavrin::test::withoutAvahi();
    QApplication app(argc, argv);
    if (!display.empty()) {
        // jwm takes the tray a moment after it starts; the tray test reports one that never came.
        static_cast<void>(QTest::qWaitFor(&QSystemTrayIcon::isSystemTrayAvailable, 10'000));
    }
    return RUN_ALL_TESTS();
}
