#pragma once

#include <avahi-common/watch.h>

#include <map>
#include <memory>

#include "osc/dispatch/SerialQueue.hpp"

namespace kavrin::detail {

/// Avahi's poll API on a serial queue: descriptors are watched by readiness sources and
/// timeouts are delayed work, so every Avahi callback runs on that queue, one at a time, as
/// Avahi's client library needs. Internal to the discovery layer.
///
/// Thread safety: made anywhere; everything else, Avahi's calls through api() included, and the
/// destruction, on the queue. Destroy it only after the Avahi client that uses it.
class AvahiDispatchPoll {
  public:
    explicit AvahiDispatchPoll(std::shared_ptr<SerialQueue> queue);
    ~AvahiDispatchPoll();
    AvahiDispatchPoll(const AvahiDispatchPoll&) = delete;
    AvahiDispatchPoll& operator=(const AvahiDispatchPoll&) = delete;

    const AvahiPoll* api() const { return &api_; }
    const std::shared_ptr<SerialQueue>& queue() const { return queue_; }

  private:
    friend struct AvahiPollCalls;

    AvahiPoll api_{};
    const std::shared_ptr<SerialQueue> queue_;
    // Owned here and handed to Avahi as raw pointers; work in flight holds weak ones, so a watch
    // or a timeout freed by Avahi never fires again.
    std::map<const AvahiWatch*, std::shared_ptr<AvahiWatch>> watches_;
    std::map<const AvahiTimeout*, std::shared_ptr<AvahiTimeout>> timeouts_;
};

}  // namespace kavrin::detail
