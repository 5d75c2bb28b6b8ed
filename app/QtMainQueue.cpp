#include "app/QtMainQueue.hpp"

#include <QCoreApplication>
#include <QMetaObject>
#include <QThread>
#include <QTimer>
#include <chrono>
#include <map>
#include <mutex>
#include <vector>

namespace kavrin {

// Delayed work waits here in deadline order under one timer, armed for the earliest: a timer
// per item would round each deadline to the millisecond on its own and could run two items
// with equal deadlines in either order.
struct QtMainQueue::Delayed : std::enable_shared_from_this<Delayed> {
    std::mutex mutex;
    std::multimap<Clock::time_point, Work> items;  // equal deadlines keep posting order
    Clock::time_point armedFor = Clock::time_point::max();
    QTimer* timer = nullptr;  // GUI thread only; owned by the application

    // On the GUI thread.
    void arm() {
        std::unique_lock lock(mutex);
        if (items.empty()) {
            armedFor = Clock::time_point::max();
            return;
        }
        armedFor = items.begin()->first;
        const auto remaining =
            std::chrono::ceil<std::chrono::milliseconds>(armedFor - Clock::now());
        lock.unlock();
        if (timer == nullptr) {
            timer = new QTimer(QCoreApplication::instance());
            timer->setSingleShot(true);
            timer->setTimerType(Qt::PreciseTimer);
            QObject::connect(timer, &QTimer::timeout, [weak = weak_from_this()] {
                if (auto self = weak.lock()) self->fire();
            });
        }
        timer->start(std::max(remaining, std::chrono::milliseconds(0)));
    }

    void fire() {
        std::vector<Work> due;
        {
            std::lock_guard lock(mutex);
            const auto end = items.upper_bound(Clock::now());
            for (auto it = items.begin(); it != end; ++it) due.push_back(std::move(it->second));
            items.erase(items.begin(), end);
        }
        for (auto& work : due) work();
        arm();
    }
};

QtMainQueue::QtMainQueue() : delayed_(std::make_shared<Delayed>()) {}

QtMainQueue::~QtMainQueue() = default;

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
    bool earliest = false;
    {
        std::lock_guard lock(delayed_->mutex);
        delayed_->items.emplace(deadline, std::move(work));
        if (deadline < delayed_->armedFor) {
            delayed_->armedFor = deadline;
            earliest = true;
        }
    }
    // A timer belongs to the thread that starts it, so it is (re)armed on the GUI thread.
    if (earliest) {
        async([weak = std::weak_ptr<Delayed>(delayed_)] {
            if (auto delayed = weak.lock()) delayed->arm();
        });
    }
}

bool QtMainQueue::isCurrent() const {
    const QCoreApplication* app = QCoreApplication::instance();
    return app != nullptr && QThread::currentThread() == app->thread();
}

}  // namespace kavrin
