#pragma once

#include <cstdint>
#include <cstring>
#include <optional>
#include <span>

namespace kavrin {

enum class OSCObjectType { message, bundle };

inline constexpr std::uint8_t oscBundleHeader[8] = {'#', 'b', 'u', 'n', 'd', 'l', 'e', 0};

inline bool startsWithBundleHeader(std::span<const std::uint8_t> bytes) {
    if (bytes.size() < 8) return false;
    // One word compare: this runs for every datagram received.
    std::uint64_t head, header;
    std::memcpy(&head, bytes.data(), 8);
    std::memcpy(&header, oscBundleHeader, 8);
    return head == header;
}

inline bool startsWithMessageHeader(std::span<const std::uint8_t> bytes) {
    return !bytes.empty() && bytes[0] == '/';
}

/// By the first bytes: the whole "#bundle\0" header first, then "/"; nothing for anything else.
inline std::optional<OSCObjectType> classifyPacket(std::span<const std::uint8_t> bytes) {
    if (startsWithBundleHeader(bytes)) return OSCObjectType::bundle;
    if (startsWithMessageHeader(bytes)) return OSCObjectType::message;
    return std::nullopt;
}

}  // namespace kavrin
