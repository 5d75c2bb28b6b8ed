#include "app/QtMainQueue.hpp"

#include <QCoreApplication>
#include <QMetaObject>
#include <QThread>
#include <QTimer>
#include <chrono>

namespace kavrin {

void QtMainQueue::async(Work work) {
    QCoreApplication* app = QCoreApplication::instance();
    if (app == nullptr) {
        return;
    }
    // Queued even on the GUI thread, so the work never runs inside this call.
    QMetaObject::invokeMethod(
        app, [work = std::move(work)] { work(); }, Qt::QueuedConnection);
}

void QtMainQueue::asyncAfter(Clock::time_point deadline, Work work) {
    // A timer belongs to the thread that starts it, so start it on the GUI thread; the delay is
    // taken from the deadline then, which keeps the deadline whatever the hop cost.
    async([deadline, work = std::move(work)]() mutable {
        const auto remaining =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        QTimer::singleShot(std::max(remaining, std::chrono::milliseconds(0)), Qt::PreciseTimer,
                           QCoreApplication::instance(), std::move(work));
    });
}

bool QtMainQueue::isCurrent() const {
    const QCoreApplication* app = QCoreApplication::instance();
    return app != nullptr && QThread::currentThread() == app->thread();
}

}  // namespace kavrin
