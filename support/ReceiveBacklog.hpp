#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <utility>

namespace kavrin {

/// What a reader has read and handed on, and its consumer has not finished with, in bytes. Past
/// its limit the reader stops, leaving what comes to the kernel's buffer (or a stream's peer),
/// until the consumer catches up: a consumer that falls behind must not make the reader hold
/// without bound what a fast peer sends. Admitted and asked full() on the reader's queue; a
/// hold may end on any thread.
class ReceiveBacklog : public std::enable_shared_from_this<ReceiveBacklog> {
  public:
    /// `onRoom` runs, on the thread that ends the hold, when the backlog falls below its limit
    /// after full() said it was full. Set once, before the first admit().
    void setOnRoom(std::function<void()> onRoom) { onRoom_ = std::move(onRoom); }

    void setLimit(std::size_t bytes) { limit_ = bytes; }
    std::size_t limit() const { return limit_; }

    /// Counts `bytes` until the returned hold and every copy of it are gone.
    std::shared_ptr<const void> admit(std::size_t bytes) {
        bytes_ += bytes;
        return {nullptr, [self = shared_from_this(), bytes](const void*) { self->release(bytes); }};
    }

    /// Whether reading must wait. When it must, onRoom will run once there is room.
    bool full() {
        if (bytes_ < limit_) return false;
        waiting_ = true;
        // A hold that ended between the two loads saw no one waiting: look again.
        return !(bytes_ < limit_ && waiting_.exchange(false));
    }

  private:
    void release(std::size_t bytes) {
        if (bytes_ -= bytes; bytes_ < limit_ && waiting_.exchange(false)) onRoom_();
    }

    std::function<void()> onRoom_;
    std::atomic<std::size_t> bytes_{0};
    std::atomic<std::size_t> limit_{32u << 20};
    std::atomic<bool> waiting_{false};
};

}  // namespace kavrin
