#include "osc/dispatch/ManualQueue.hpp"

#include <vector>

namespace kavrin {

namespace {
thread_local const ManualQueue* currentManual = nullptr;
}

void ManualQueue::async(Work work) {
    asyncAfter(Clock::time_point::min(), std::move(work));
}

void ManualQueue::asyncAfter(Clock::time_point deadline, Work work) {
    {
        std::lock_guard lock(mutex_);
        items_.emplace(deadline, std::move(work));
    }
    posted_.notify_all();
}

bool ManualQueue::isCurrent() const {
    return currentManual == this;
}

std::size_t ManualQueue::pending() const {
    std::lock_guard lock(mutex_);
    return items_.size();
}

bool ManualQueue::waitForWork(Clock::duration timeout) {
    std::unique_lock lock(mutex_);
    return posted_.wait_for(lock, timeout, [&] { return !items_.empty(); });
}

void ManualQueue::runOne(Work& work) {
    const ManualQueue* outer = currentManual;
    currentManual = this;
    work();
    currentManual = outer;
}

std::size_t ManualQueue::drain() {
    std::vector<Work> due;
    {
        std::lock_guard lock(mutex_);
        auto end = items_.upper_bound(Clock::now());
        for (auto it = items_.begin(); it != end; ++it) due.push_back(std::move(it->second));
        items_.erase(items_.begin(), end);
    }
    for (auto& work : due) runOne(work);
    return due.size();
}

bool ManualQueue::drainUntil(std::function<bool()> done, Clock::duration timeout) {
    // A timeout beyond the clock's range waits without end.
    const auto now = Clock::now();
    const auto end = timeout >= Clock::time_point::max() - now ? Clock::time_point::max()
                                                                : now + timeout;
    while (!done()) {
        Work work;
        {
            std::unique_lock lock(mutex_);
            for (;;) {
                const auto now = Clock::now();
                if (!items_.empty() && items_.begin()->first <= now) break;
                if (now >= end) {
                    lock.unlock();
                    return done();
                }
                const auto wake = items_.empty() ? end : std::min(end, items_.begin()->first);
                if (wake == Clock::time_point::max()) {
                    posted_.wait(lock);
                } else {
                    posted_.wait_until(lock, wake);
                }
            }
            work = std::move(items_.begin()->second);
            items_.erase(items_.begin());
        }
        runOne(work);
    }
    return true;
}

}  // namespace kavrin
