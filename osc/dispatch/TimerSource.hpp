#pragma once

#include <functional>
#include <memory>

#include "osc/dispatch/DispatchQueue.hpp"
#include "osc/dispatch/SerialQueue.hpp"

namespace kavrin {

/// A one-shot timer whose event handler runs on a serial queue. It starts suspended: schedule()
/// sets the delay, resume() starts counting (again from now if rescheduled while running).
///
/// Thread safety: every operation may be called from any thread. The handler runs on the queue,
/// at most once per start, and never after cancel() has returned on that queue.
class TimerSource {
    struct Private {};

  public:
    static std::shared_ptr<TimerSource> create(std::shared_ptr<SerialQueue> queue);
    TimerSource(Private, std::shared_ptr<SerialQueue> queue);
    ~TimerSource();
    TimerSource(const TimerSource&) = delete;
    TimerSource& operator=(const TimerSource&) = delete;

    void setEventHandler(std::function<void()> handler);
    void schedule(DispatchQueue::Clock::duration after);
    void resume();
    /// Stops the timer for good and drops the handler.
    void cancel();

  private:
    struct Impl;
    std::shared_ptr<Impl> impl_;
};

}  // namespace kavrin
