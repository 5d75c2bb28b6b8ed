#pragma once

#include <memory>

#include "osc/dispatch/DispatchQueue.hpp"

namespace kavrin {

// The application's main queue: work posted here runs on the Qt GUI thread from its event
// loop, in the order posted; delayed work in deadline order, equal deadlines in the order
// posted. Work may be posted from any thread; it never runs inside the call. Work posted once
// the QApplication is gone is dropped.
//
// Work runs in batches: what has come by the time the GUI thread gets to it runs together, and
// while separate posts keep coming what has come runs once a millisecond, so that a flood of
// deliveries does not wake the GUI thread for each. A flood paced where it enters (the readiness
// sources' flood interval, ReadinessSource::setFloodInterval) comes a post a millisecond, and
// each runs at once. Each batch is one StdoutLines::Batch: its lines leave in one write() as it
// ends.
class QtMainQueue final : public DispatchQueue {
  public:
    QtMainQueue();
    ~QtMainQueue() override;

    using DispatchQueue::asyncAfter;

    void async(Work work) override;
    void asyncAfter(Clock::time_point deadline, Work work) override;
    bool isCurrent() const override;  // on the GUI thread

  private:
    struct Pending;
    struct Delayed;
    std::shared_ptr<Pending> pending_;
    std::shared_ptr<Delayed> delayed_;
};

}  // namespace kavrin
