#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace kavrin {

/// Bytes received and not yet taken, consumed from the front and filled at the back. Taking
/// moves a start mark instead of the bytes, so many small reads from one large receive cost no
/// copying of what remains. Touched only on its owner's queue. Internal to the transport layer.
class InboundBuffer {
  public:
    std::size_t size() const { return bytes_.size() - start_; }
    bool empty() const { return size() == 0; }
    std::span<const std::uint8_t> view() const { return {bytes_.data() + start_, size()}; }

    void consume(std::size_t count) {
        start_ += count;
        if (start_ == bytes_.size()) {
            clear();
        }
    }

    /// Room for count more bytes at the back; commit() then says how many arrived.
    std::uint8_t* prepare(std::size_t count) {
        // Moving what remains to the front once it is outweighed by what was taken keeps the
        // buffer within the remains plus one receive.
        if (start_ > 0 && start_ >= size()) {
            bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(start_));
            start_ = 0;
        }
        committed_ = bytes_.size();
        bytes_.resize(committed_ + count);
        return bytes_.data() + committed_;
    }

    void commit(std::size_t count) { bytes_.resize(committed_ + count); }

    /// Everything left, handed over; the buffer is empty after.
    std::vector<std::uint8_t> takeAll() {
        std::vector<std::uint8_t> rest(bytes_.begin() + static_cast<std::ptrdiff_t>(start_),
                                       bytes_.end());
        clear();
        return rest;
    }

    void clear() {
        bytes_.clear();
        start_ = 0;
    }

  private:
    std::vector<std::uint8_t> bytes_;
    std::size_t start_ = 0;
    std::size_t committed_ = 0;
};

}  // namespace kavrin
