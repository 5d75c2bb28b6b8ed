#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <utility>

#include "support/CompactBytes.hpp"

namespace kavrin {

/// The bytes a message or bundle was decoded from: a view into the one shared copy of the
/// datagram that the packet and everything nested in it keep, or for a short message decoded
/// from a caller's bytes, a copy inside the message itself, which then costs no allocation.
/// Empty for one built in code. A plain value.
class OSCDecodedBytes {
  public:
    // The longest message kept inside.
    static constexpr std::size_t inlineCapacity = 64;

    OSCDecodedBytes() noexcept {}

    // Keeps `bytes`, which lie within `owner`, as they are.
    void share(std::shared_ptr<const std::uint8_t[]> owner, std::span<const std::uint8_t> bytes) {
        owner_ = std::move(owner);
        bytes_ = bytes;
    }
    // Keeps a copy of `bytes`, at most inlineCapacity of them, inside.
    void copy(std::span<const std::uint8_t> bytes) noexcept {
        size_ = bytes.size();
        copyShortBytes<inlineCapacity>(inside_, bytes.data(), size_);
    }

    std::optional<std::span<const std::uint8_t>> bytes() const {
        if (owner_) return bytes_;
        if (size_ > 0) return std::span<const std::uint8_t>(inside_, size_);
        return std::nullopt;
    }

  private:
    std::shared_ptr<const std::uint8_t[]> owner_;
    std::span<const std::uint8_t> bytes_;
    std::size_t size_ = 0;
    std::uint8_t inside_[inlineCapacity];  // the first size_ when kept inside, else unused
};

}  // namespace kavrin
