// The Kavrin monitor: pings an OSC peer every 2 s and shows whether it answers.
#include <QApplication>
#include <memory>

#include "app/AppDelegate.hpp"
#include "app/FatalError.hpp"
#include "app/MonitorSettings.hpp"
#include "app/MyWindow.hpp"
#include "app/QtMainQueue.hpp"
#include "app/QuitSignalNotifier.hpp"
#include "app/ViewController.hpp"
#include "osc/dispatch/ReadinessSource.hpp"

int main(int argc, char* argv[]) {
    kavrin::installMonitorFatalErrorHandler();
    // A flood of messages is read in millisecond gulps instead of a wake-up per datagram or two:
    // the wake-ups were most of the monitor's CPU time. Each gulp reaches the GUI thread as one
    // batch, so that thread too wakes at most once a millisecond.
    kavrin::ReadinessSource::setFloodInterval(std::chrono::milliseconds(1));
    QApplication app(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("Kavrin"));
    QCoreApplication::setApplicationName(QStringLiteral("Kavrin"));

    kavrin::AppDelegate delegate;
    kavrin::QuitSignalNotifier quitSignals;
    QObject::connect(&quitSignals, &kavrin::QuitSignalNotifier::activated, &delegate,
                     &kavrin::AppDelegate::terminate);

    kavrin::MonitorSettings settings;
    kavrin::ViewController controller(settings, std::make_shared<kavrin::QtMainQueue>());
    controller.viewDidLoad();

    kavrin::MyWindow windowController(&controller);
    windowController.windowDidLoad();
    delegate.installActions(&controller);

    controller.show();
    return QApplication::exec();
}
