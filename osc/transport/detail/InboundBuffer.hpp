#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <span>
#include <vector>

namespace kavrin {

/// Bytes received and not yet taken, consumed from the front and filled at the back. Taking
/// moves a start mark instead of the bytes, so many small reads from one large receive cost no
/// copying of what remains; and the room for a receive is not cleared before the system fills
/// it. Touched only on its owner's queue. Internal to the transport layer.
class InboundBuffer {
  public:
    std::size_t size() const { return end_ - start_; }
    bool empty() const { return end_ == start_; }
    std::span<const std::uint8_t> view() const { return {bytes_.get() + start_, size()}; }

    void consume(std::size_t count) {
        start_ += count;
        if (start_ == end_) {
            start_ = end_ = 0;  // keeps the storage for the next receive
        }
    }

    /// Room for count more bytes at the back; commit() then says how many arrived.
    std::uint8_t* prepare(std::size_t count) {
        if (end_ + count > capacity_) {
            // What remains moves to the front, so the storage stays within the remains plus
            // one receive.
            const std::size_t remaining = size();
            if (remaining + count > capacity_) {
                auto larger = std::make_unique_for_overwrite<std::uint8_t[]>(remaining + count);
                if (remaining > 0) {
                    std::memcpy(larger.get(), bytes_.get() + start_, remaining);
                }
                bytes_ = std::move(larger);
                capacity_ = remaining + count;
            } else if (remaining > 0) {
                std::memmove(bytes_.get(), bytes_.get() + start_, remaining);
            }
            start_ = 0;
            end_ = remaining;
        }
        return bytes_.get() + end_;
    }

    void commit(std::size_t count) { end_ += count; }

    /// Everything left, handed over; the buffer is empty after.
    std::vector<std::uint8_t> takeAll() {
        std::vector<std::uint8_t> rest(bytes_.get() + start_, bytes_.get() + end_);
        start_ = end_ = 0;
        return rest;
    }

    /// Empties the buffer and lets go of its storage.
    void clear() {
        bytes_.reset();
        capacity_ = start_ = end_ = 0;
    }

  private:
    std::unique_ptr<std::uint8_t[]> bytes_;
    std::size_t capacity_ = 0;
    std::size_t start_ = 0;
    std::size_t end_ = 0;
};

}  // namespace kavrin
