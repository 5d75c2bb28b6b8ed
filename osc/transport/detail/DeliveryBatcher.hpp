#pragma once

#include <cstddef>
#include <functional>
#include <utility>
#include <vector>

namespace kavrin {

/// Gathers what one turn of work on a serial queue produces for another queue and hands it over
/// in blocks, in order: a queue hop per item would cost more than making the item. A block goes
/// when it is full and when the owner calls flush(). An owner that knows where its turn ends
/// flushes there; one that is handed its items one at a time and cannot tell passes
/// scheduleFlush, called as a block's first item arrives, which posts flush() to the owner's
/// queue behind the work in progress.
///
/// Touched only on the owner's queue. Internal to the transport layer.
template <class T>
class DeliveryBatcher {
  public:
    /// Large enough that the hop costs little per item, small enough that the first items of a
    /// flood do not wait for the last.
    static constexpr std::size_t blockSize = 64;

    using HandOver = std::function<void(std::vector<T> block)>;

    explicit DeliveryBatcher(HandOver handOver, std::function<void()> scheduleFlush = nullptr)
        : handOver_(std::move(handOver)), scheduleFlush_(std::move(scheduleFlush)) {}
    DeliveryBatcher(const DeliveryBatcher&) = delete;
    DeliveryBatcher& operator=(const DeliveryBatcher&) = delete;

    void add(T&& item) {
        if (pending_.empty() && scheduleFlush_) {
            scheduleFlush_();
        }
        pending_.push_back(std::move(item));
        if (pending_.size() == blockSize) {
            flush();
        }
    }

    void flush() {
        if (pending_.empty()) {
            return;
        }
        std::vector<T> block = std::exchange(pending_, {});
        pending_.reserve(block.size());  // the next block is likely as large: grow once
        handOver_(std::move(block));
    }

  private:
    HandOver handOver_;
    std::function<void()> scheduleFlush_;
    std::vector<T> pending_;
};

}  // namespace kavrin
