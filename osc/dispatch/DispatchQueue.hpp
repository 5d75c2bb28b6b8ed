#pragma once

#include <chrono>
#include <functional>

namespace kavrin {

/// Anything work can be posted to: a serial queue, the global concurrent queue, or the
/// application's main queue. The main queue is whatever DispatchQueue the application supplies
/// (the Qt app posts to its event loop; tests use ManualQueue); the library never assumes one.
///
/// Thread safety: every operation may be called from any thread. Work never runs inside the
/// call that posts it; it runs where the concrete queue says.
class DispatchQueue {
  public:
    using Work = std::function<void()>;
    using Clock = std::chrono::steady_clock;

    virtual ~DispatchQueue() = default;

    /// Posts work to run later on this queue; never runs it inline.
    virtual void async(Work work) = 0;
    /// Posts work to run on this queue no earlier than deadline.
    virtual void asyncAfter(Clock::time_point deadline, Work work) = 0;
    /// Same as asyncAfter(now + delay, work).
    void asyncAfter(Clock::duration delay, Work work) {
        asyncAfter(Clock::now() + delay, std::move(work));
    }
    /// True when called from work running on this queue.
    virtual bool isCurrent() const = 0;

    /// Runs work on this queue and waits for it; at once when already on this queue. An
    /// exception thrown by the work propagates to the caller. Waiting from a queue's work never
    /// starves the queues it waits for (the pools add threads); waiting on a queue that nobody
    /// drains (a ManualQueue, say) waits until someone does.
    virtual void sync(const Work& work);
};

}  // namespace kavrin
