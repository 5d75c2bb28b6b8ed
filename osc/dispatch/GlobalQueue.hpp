#pragma once

#include <memory>

#include "osc/dispatch/DispatchQueue.hpp"
#include "osc/dispatch/SerialQueue.hpp"

namespace kavrin {

/// Global concurrent queues for blocking work such as name lookups. Work posted to them runs
/// concurrently on a thread pool of their own, separate from the threads that run serial queues,
/// so a slow lookup never delays a serial queue.
///
/// Thread safety: get() and the returned queues may be used from any thread; work runs on a
/// global-pool thread, in no guaranteed order.
class GlobalQueue {
  public:
    /// The process-wide concurrent queue for qos (one per level, all on the same pool).
    static std::shared_ptr<DispatchQueue> get(QualityOfService qos = QualityOfService::defaultQoS);
    /// True when queue is one of the global concurrent queues.
    static bool isGlobal(const DispatchQueue* queue);
};

}  // namespace kavrin
