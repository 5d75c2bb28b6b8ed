#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <utility>

namespace kavrin {

/// The bytes a message or bundle was decoded from: a view into the one shared copy of the
/// datagram that the packet and everything nested in it keep. Empty for one built in code.
/// A plain value.
class OSCDecodedBytes {
  public:
    OSCDecodedBytes() = default;
    OSCDecodedBytes(std::shared_ptr<const std::uint8_t[]> owner,
                    std::span<const std::uint8_t> bytes)
        : owner_(std::move(owner)), bytes_(bytes) {}

    std::optional<std::span<const std::uint8_t>> bytes() const {
        if (!owner_) return std::nullopt;
        return bytes_;
    }

  private:
    std::shared_ptr<const std::uint8_t[]> owner_;
    std::span<const std::uint8_t> bytes_;
};

}  // namespace kavrin
