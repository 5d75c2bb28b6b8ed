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
    // A flood of messages is read in half-millisecond gulps instead of a wake-up per datagram or
    // two: the wake-ups were most of the monitor's CPU time, and half a millisecond more lag is
    // nothing on a display that batches its own work by the millisecond.
    kavrin::ReadinessSource::setFloodInterval(std::chrono::microseconds(500));
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
