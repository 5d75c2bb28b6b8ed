#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "osc/codec/OSCBundle.hpp"
#include "osc/codec/OSCMessage.hpp"
#include "osc/codec/OSCObjectType.hpp"

namespace kavrin {

// What one datagram holds: a message or a bundle. A plain value.
struct OSCPacket : std::variant<OSCMessage, OSCBundle> {
    using variant::variant;
    const variant& base() const { return *this; }

    std::vector<std::uint8_t> rawData(OSCTextPolicy policy = OSCTextPolicy::ascii) const;
    // Into a buffer reused from one call to the next, as OSCMessage::encode.
    void encode(std::vector<std::uint8_t>& into, OSCTextPolicy policy = OSCTextPolicy::ascii) const;
    std::string description() const;
    // Nothing when the bytes are neither a bundle nor a message (the caller drops them);
    // throws OSCDecodeError when they are one of them but malformed. The string arguments may
    // hold what `policy` allows.
    static std::optional<OSCPacket> decode(std::span<const std::uint8_t> bytes,
                                           OSCTextPolicy policy = OSCTextPolicy::ascii);
    // The same, keeping `bytes` as the packet's own copy instead of copying them again: for a
    // receiver that was handed the datagram.
    static std::optional<OSCPacket> decode(std::vector<std::uint8_t>&& bytes,
                                           OSCTextPolicy policy = OSCTextPolicy::ascii);
    // The same for the first `size` bytes of a shared buffer, which the packet keeps as it is
    // (OSCMessage::decode): with no copy, and no allocation for the usual message.
    static std::optional<OSCPacket> decode(std::shared_ptr<const std::uint8_t[]> buffer,
                                           std::size_t size,
                                           OSCTextPolicy policy = OSCTextPolicy::ascii);

  private:
    // A message from `bytes`, which lie within `buffer` (none: the caller's, and copied).
    static std::optional<OSCPacket> decodeMessage(std::span<const std::uint8_t> bytes,
                                                  std::shared_ptr<const std::uint8_t[]> buffer,
                                                  OSCTextPolicy policy);
};

}  // namespace kavrin

template <>
struct std::hash<kavrin::OSCPacket> {
    std::size_t operator()(const kavrin::OSCPacket& packet) const noexcept;
};
