#include "app/DeliveryQueue.hpp"

#include <QCoreApplication>
#include <QTimer>
#include <chrono>
#include <mutex>
#include <vector>

#include "app/StdoutLines.hpp"

namespace kavrin {

namespace {
constexpr auto floodInterval = std::chrono::milliseconds(1);
}  // namespace

struct DeliveryQueue::Pending : std::enable_shared_from_this<Pending> {
    std::mutex mutex;
    std::vector<Work> items;
    bool draining = false;  // a drain is posted or its follow-up timer armed

    // On the GUI thread. Runs what has come, then looks again after the interval; finding
    // nothing then, it stops, and the next item posts a drain of its own.
    void drain() {
        std::vector<Work> batch;
        {
            std::lock_guard lock(mutex);
            batch.swap(items);
            if (batch.empty()) {
                draining = false;
                return;
            }
        }
        {
            const StdoutLines::Batch lines;
            for (auto& work : batch) work();
        }
        QTimer::singleShot(floodInterval, Qt::PreciseTimer, QCoreApplication::instance(),
                           [weak = weak_from_this()] {
                               if (auto self = weak.lock()) self->drain();
                           });
    }
};

DeliveryQueue::DeliveryQueue(std::shared_ptr<DispatchQueue> mainQueue)
    : mainQueue_(std::move(mainQueue)), pending_(std::make_shared<Pending>()) {}

DeliveryQueue::~DeliveryQueue() = default;

void DeliveryQueue::async(Work work) {
    bool post = false;
    {
        std::lock_guard lock(pending_->mutex);
        pending_->items.push_back(std::move(work));
        post = !pending_->draining;
        pending_->draining = true;
    }
    if (post) {
        mainQueue_->async([weak = std::weak_ptr<Pending>(pending_)] {
            if (auto pending = weak.lock()) pending->drain();
        });
    }
}

void DeliveryQueue::asyncAfter(Clock::time_point deadline, Work work) {
    mainQueue_->asyncAfter(deadline, [work = std::move(work)] {
        const StdoutLines::Batch lines;
        work();
    });
}

bool DeliveryQueue::isCurrent() const {
    return mainQueue_->isCurrent();
}

}  // namespace kavrin
