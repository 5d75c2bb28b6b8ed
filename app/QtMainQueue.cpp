#include "app/QtMainQueue.hpp"

#include <QCoreApplication>
#include <QMetaObject>
#include <QThread>
#include <QTimer>
#include <chrono>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include "app/StdoutLines.hpp"

namespace kavrin {

// Work posted and not yet run. What has come by the time the GUI thread gets to it runs as one
// batch. A run within a millisecond of the last starts a rhythm: what has come runs once a
// millisecond, for as long as each look finds several posts, so a flood of separate posts wakes
// the thread a thousand times a second rather than per post. A look that finds a single post
// ends it: a flood paced where it enters (the readiness sources' flood interval) already comes a
// post a millisecond, and each of those runs at once.
struct QtMainQueue::Pending : std::enable_shared_from_this<Pending> {
    static constexpr auto floodInterval = std::chrono::milliseconds(1);

    std::mutex mutex;
    std::vector<Work> items;
    bool running = false;                           // a run is posted or its follow-up timer armed
    std::chrono::steady_clock::time_point lastRun;  // GUI thread only

    // Under the lock: whether the caller must post a run.
    bool add(Work work) {
        items.push_back(std::move(work));
        return !std::exchange(running, true);
    }

    // On the GUI thread; `followUp` for the look a flood's previous run arranged.
    void run(bool followUp) {
        const auto now = std::chrono::steady_clock::now();
        const bool soon = now - lastRun < floodInterval;
        lastRun = now;
        std::vector<Work> batch;
        bool flood = false;
        {
            std::lock_guard lock(mutex);
            batch.swap(items);
            flood = !batch.empty() && (followUp ? batch.size() > 1 : soon);
            if (!flood) running = false;
        }
        if (batch.empty()) return;
        {
            const StdoutLines::Batch lines;
            for (auto& work : batch) work();
        }
        if (!flood) return;
        QTimer::singleShot(floodInterval, Qt::PreciseTimer, QCoreApplication::instance(),
                           [weak = weak_from_this()] {
                               if (auto self = weak.lock()) self->run(true);
                           });
    }
};

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
        {
            const StdoutLines::Batch lines;
            for (auto& work : due) work();
        }
        arm();
    }
};

QtMainQueue::QtMainQueue()
    : pending_(std::make_shared<Pending>()), delayed_(std::make_shared<Delayed>()) {}

QtMainQueue::~QtMainQueue() = default;

void QtMainQueue::async(Work work) {
    QCoreApplication* app = QCoreApplication::instance();
    if (app == nullptr) {
        return;
    }
    bool post = false;
    {
        std::lock_guard lock(pending_->mutex);
        post = pending_->add(std::move(work));
    }
    // Queued even on the GUI thread, so the work never runs inside this call.
    if (post) {
        QMetaObject::invokeMethod(
            app,
            [weak = std::weak_ptr<Pending>(pending_)] {
                if (auto pending = weak.lock()) pending->run(false);
            },
            Qt::QueuedConnection);
    }
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
