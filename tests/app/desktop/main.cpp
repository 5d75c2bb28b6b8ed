// The monitor on a real desktop: a private Xvfb with jwm, whose tray the monitor uses. Every
// test is skipped when Xvfb is not installed (scripts/setup installs it).

#include <QApplication>
#include <QSystemTrayIcon>
#include <QtTest/QTest>

#include "PrivateEnvironment.hpp"
#include "XSession.hpp"
#include "app/FatalError.hpp"

namespace kavrin::test {
namespace {
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
