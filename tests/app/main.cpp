// The monitor's widgets need a QApplication; the tests run on the offscreen platform.

#include <QApplication>
#include <QTemporaryDir>

#include "PrivateEnvironment.hpp"
#include "app/FatalError.hpp"

int main(int argc, char* argv[]) {
    kavrin::installMonitorFatalErrorHandler();
    ::testing::InitGoogleTest(&argc, argv);
    // Death tests re-run the test binary: the GUI and the socket threads must not be forked.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    QApplication app(argc, argv);
    // A death test's child dies before its fixture removes its temporary folder: every
    // temporary file of the run goes into one folder, removed when the run ends. A child makes
    // its own inside its parent's.
    const QTemporaryDir scratch;
    qputenv("TMPDIR", scratch.path().toUtf8());
    kavrin::test::withoutAvahi();
    return RUN_ALL_TESTS();
}
