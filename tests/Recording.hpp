#pragma once

#include <condition_variable>
#include <mutex>
#include <optional>
#include <utility>

#include "osc/dispatch/DispatchQueue.hpp"

namespace kavrin::test {

// Reports recorded under a lock from whatever thread they come on, each noting whether it came
// on the queue it belongs to (any, without one); tests wait on them with a bound.
class Recording {
  public:
    explicit Recording(std::shared_ptr<DispatchQueue> queue,
                       std::chrono::milliseconds bound = std::chrono::seconds(10))
        : queue_(std::move(queue)), bound_(bound) {}

    // Waits until done() holds (checked under the lock); false after the bound.
    template <class Done>
    bool waitFor(Done done, std::optional<std::chrono::milliseconds> bound = std::nullopt) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, bound.value_or(bound_), [&] { return done(); });
    }

    template <class Look>
    auto read(Look look) {
        std::lock_guard lock(mutex_);
        return look();
    }

    bool allOnDelegateQueue = true;

  protected:
    template <class F>
    void record(F f) {
        std::lock_guard lock(mutex_);
        allOnDelegateQueue = allOnDelegateQueue && (!queue_ || queue_->isCurrent());
        f();
        changed_.notify_all();
    }

  private:
    std::shared_ptr<DispatchQueue> queue_;
    std::chrono::milliseconds bound_;
    std::mutex mutex_;
    std::condition_variable changed_;
};

// Entries recorded so, in the order they came.
template <class T>
class Log : public Recording {
  public:
    using Recording::Recording;

    void add(T entry) {
        record([&] { entries_.push_back(std::move(entry)); });
    }
    bool waitForSize(std::size_t count,
                     std::optional<std::chrono::milliseconds> bound = std::nullopt) {
        return waitFor([&] { return entries_.size() >= count; }, bound);
    }
    std::vector<T> entries() {
        return read([&] { return entries_; });
    }
    std::size_t size() {
        return read([&] { return entries_.size(); });
    }

  private:
    std::vector<T> entries_;
};

}  // namespace kavrin::test
