// The monitor on a real desktop: a private Xvfb with jwm, whose tray the monitor uses. Every
// test is skipped when Xvfb is not installed (scripts/setup installs it).

#include <QApplication>
#include <QSystemTrayIcon>
#include <QtTest/QTest>

#include "PrivateEnvironment.hpp"
#include "app/FatalError.hpp"

namespace kavrin::test {
namespace {

// A private X server (Xvfb) with a window manager that has a system tray (jwm); both are ended
// with the session, the window manager first. display() is empty when Xvfb is not installed or
// did not start within its bound.
class XSession {
  public:
    XSession() {
        // Xvfb picks a free display and writes its number to the descriptor given: its output.
        server_ = std::make_unique<tcpTest::ChildProcess>(
            "Xvfb",
            std::vector<std::string>{"-displayfd", "1", "-screen", "0", "1024x768x24", "-nolisten",
                                     "tcp"},
            tcpTest::ChildProcess::Errors::separate);
        const auto number = server_->nextLine(std::chrono::seconds(10));
        if (!number || number->empty()) return;
        display_ = ":" + *number;
        windowManager_ = std::make_unique<tcpTest::ChildProcess>(
            "jwm", std::vector<std::string>{"-display", display_});
    }

    const std::string& display() const { return display_; }

  private:
    std::unique_ptr<tcpTest::ChildProcess> server_;
    std::unique_ptr<tcpTest::ChildProcess> windowManager_;
    std::string display_;
};

std::string display;

}  // namespace

const std::string& desktopDisplay() {
    return display;
}

}  // namespace kavrin::test

// Under AddressSanitizer: what the X, D-Bus and font libraries keep until exit is theirs.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libxcb\nleak:libX11\nleak:libdbus-1\nleak:libfontconfig\nleak:libQt6XcbQpa\n";
}

int main(int argc, char* argv[]) {
    kavrin::installMonitorFatalErrorHandler();
    ::testing::InitGoogleTest(&argc, argv);
    // Listing the tests (as the build does to find them) needs no desktop.
    std::unique_ptr<kavrin::test::XSession> session;
    if (!GTEST_FLAG_GET(list_tests)) {
        session = std::make_unique<kavrin::test::XSession>();
        kavrin::test::display = session->display();
    }
    if (kavrin::test::display.empty()) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    } else {
        qputenv("DISPLAY", QByteArray::fromStdString(kavrin::test::display));
        qputenv("QT_QPA_PLATFORM", "xcb");
    }
    kavrin::test::withoutAvahi();
    QApplication app(argc, argv);
    if (!kavrin::test::display.empty()) {
        // jwm takes the tray a moment after it starts; the tray test reports one that never came.
        static_cast<void>(QTest::qWaitFor([] { return QSystemTrayIcon::isSystemTrayAvailable(); }, 10'000));
    }
    return RUN_ALL_TESTS();
}
