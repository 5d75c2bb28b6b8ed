#pragma once

#include <memory>

#include "osc/dispatch/DispatchQueue.hpp"

namespace kavrin {

// The application's main queue: work posted here runs on the Qt GUI thread from its event
// loop, in the order posted; delayed work in deadline order, equal deadlines in the order
// posted. Work may be posted from any thread; it never runs inside the call. Work posted once
// the QApplication is gone is dropped.
class QtMainQueue final : public DispatchQueue {
  public:
    QtMainQueue();
    ~QtMainQueue() override;

    using DispatchQueue::asyncAfter;

    void async(Work work) override;
    void asyncAfter(Clock::time_point deadline, Work work) override;
    bool isCurrent() const override;  // on the GUI thread

  private:
    struct Delayed;
    std::shared_ptr<Delayed> delayed_;
};

}  // namespace kavrin
