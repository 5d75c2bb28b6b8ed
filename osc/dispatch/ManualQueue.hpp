#pragma once

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <utility>

#include "osc/dispatch/DispatchQueue.hpp"

namespace kavrin {

/// A queue whose work runs only when someone drains it, on the draining thread. Tests use it as
/// a stand-in for an application's main queue.
///
/// Thread safety: async(), asyncAfter() and isCurrent() may be called from any thread; drain()
/// and drainUntil() from one thread at a time, which is where the work runs.
class ManualQueue final : public DispatchQueue {
  public:
    void async(Work work) override;
    using DispatchQueue::asyncAfter;
    void asyncAfter(Clock::time_point deadline, Work work) override;
    bool isCurrent() const override;

    /// Runs the work that is due now, in deadline then posting order; returns how many ran. Work
    /// posted while draining waits for the next drain.
    std::size_t drain();
    /// Runs work as it becomes due until done() is true (checked before the first wait and after
    /// each item) or timeout passes; returns done()'s last answer. Clock::duration::max() waits
    /// without end.
    bool drainUntil(std::function<bool()> done, Clock::duration timeout);
    /// Number of items posted and not yet run (due or not).
    std::size_t pending() const;
    /// Waits, without running anything, until an item is pending or timeout passes; returns
    /// whether one is.
    bool waitForWork(Clock::duration timeout);

  private:
    void runOne(Work& work);

    mutable std::mutex mutex_;
    std::condition_variable posted_;
    std::multimap<Clock::time_point, Work> items_;  // equal deadlines keep posting order
};

}  // namespace kavrin
