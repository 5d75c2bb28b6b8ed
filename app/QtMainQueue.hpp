#pragma once

#include "osc/dispatch/DispatchQueue.hpp"

namespace kavrin {

// The application's main queue: work posted here runs on the Qt GUI thread from its event
// loop, in the order posted. Work may be posted from any thread; it never runs inside the
// call. Work posted once the QApplication is gone is dropped.
class QtMainQueue final : public DispatchQueue {
  public:
    using DispatchQueue::asyncAfter;

    void async(Work work) override;
    void asyncAfter(Clock::time_point deadline, Work work) override;
    bool isCurrent() const override;  // on the GUI thread
};

}  // namespace kavrin
