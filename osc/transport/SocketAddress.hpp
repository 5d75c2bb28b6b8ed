#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace kavrin {

/// An immutable socket address blob: the bytes of a whole sockaddr_in (16 bytes) or
/// sockaddr_in6 (28 bytes) in network byte order, exactly as the kernel uses it. Empty means
/// "no address". A small value type held inline: copy it freely, from any thread.
class SocketAddress {
  public:
    static constexpr std::size_t maxSize = 28;  // sizeof(sockaddr_in6)

    SocketAddress() = default;
    /// Copies size bytes; throws std::length_error when size exceeds maxSize.
    SocketAddress(const void* bytes, std::size_t size);
    explicit SocketAddress(std::span<const std::uint8_t> bytes);

    const std::uint8_t* data() const { return bytes_.data(); }
    std::size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    std::span<const std::uint8_t> bytes() const { return {bytes_.data(), size_}; }

    /// The sa_family field (AF_INET, AF_INET6), or AF_UNSPEC when too short to hold one.
    int family() const;

    friend bool operator==(const SocketAddress& a, const SocketAddress& b);

  private:
    std::array<std::uint8_t, maxSize> bytes_{};
    std::uint8_t size_ = 0;
};

}  // namespace kavrin
