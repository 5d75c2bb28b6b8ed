#pragma once

#include <memory>

#include "osc/dispatch/DispatchQueue.hpp"

namespace kavrin {

// The queue the server delivers to: work posted from any thread runs on the GUI thread, in the
// order posted, in batches. The first item after a quiet spell runs at once; while items keep
// coming they run together once a millisecond, so a flood wakes the GUI thread a thousand times
// a second rather than once per message, for at most a millisecond more lag. Each batch is one
// StdoutLines::Batch: its lines leave in one write() as it ends. Delayed work runs as the main
// queue runs it, each item its own batch. Create on the GUI thread; `mainQueue` must run its
// work there.
class DeliveryQueue final : public DispatchQueue {
  public:
    explicit DeliveryQueue(std::shared_ptr<DispatchQueue> mainQueue);
    ~DeliveryQueue() override;

    using DispatchQueue::asyncAfter;
    void async(Work work) override;
    void asyncAfter(Clock::time_point deadline, Work work) override;
    bool isCurrent() const override;

  private:
    struct Pending;
    std::shared_ptr<DispatchQueue> mainQueue_;
    std::shared_ptr<Pending> pending_;
};

}  // namespace kavrin
