#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <string_view>

struct in_addr;
struct in6_addr;

namespace kavrin {

/// An immutable socket address blob: the bytes of a whole sockaddr_in (16 bytes) or
/// sockaddr_in6 (28 bytes) in network byte order, exactly as the kernel uses it. Empty means
/// "no address". A small value type held inline: copy it freely, from any thread.
///
/// The host and port helpers answer only for an IP address: a whole sockaddr_in or sockaddr_in6
/// (isIPv4() or isIPv6()). For any other blob they give empty text and port 0.
class SocketAddress {
  public:
    static constexpr std::size_t maxSize = 28;  // sizeof(sockaddr_in6)

    SocketAddress() = default;
    /// Copies size bytes; throws std::length_error when size exceeds maxSize.
    // Inline, with the two sizes the kernel gives copied by fixed moves: every datagram
    // received makes one.
    SocketAddress(const void* bytes, std::size_t size) {
        if (size == 16) {
            std::memcpy(bytes_.data(), bytes, 16);
        } else if (size == maxSize) {
            std::memcpy(bytes_.data(), bytes, maxSize);
        } else if (size > maxSize) {
            throwTooLong();
        } else if (size > 0) {
            std::memcpy(bytes_.data(), bytes, size);
        }
        size_ = static_cast<std::uint8_t>(size);
    }
    explicit SocketAddress(std::span<const std::uint8_t> bytes);

    /// port in host order, as everywhere in this class.
    static SocketAddress ipv4(const in_addr& address, std::uint16_t port);
    static SocketAddress ipv6(const in6_addr& address, std::uint16_t port);
    /// From numeric host text ("127.0.0.1", "::1"); empty when host is not such text.
    static SocketAddress fromNumericHost(const std::string& host, std::uint16_t port);

    const std::uint8_t* data() const { return bytes_.data(); }
    std::size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    std::span<const std::uint8_t> bytes() const { return {bytes_.data(), size_}; }

    /// The sa_family field (AF_INET, AF_INET6), or AF_UNSPEC when too short to hold one.
    int family() const;
    bool isIPv4() const;  ///< a whole sockaddr_in
    bool isIPv6() const;  ///< a whole sockaddr_in6

    /// Numeric host text: "127.0.0.1", "fe80::1".
    std::string host() const;
    std::uint16_t port() const;
    /// A copy with port replaced; a blob that is no IP address comes back unchanged.
    SocketAddress withPort(std::uint16_t port) const;
    /// Same family, address and port: flow info, scope and padding are not compared, unlike ==.
    bool sameEndpoint(const SocketAddress& other) const;
    /// "127.0.0.1:8000", "[::1]:8000"; empty for a blob that is no IP address.
    std::string description() const;

    friend bool operator==(const SocketAddress& a, const SocketAddress& b);

  private:
    [[noreturn]] static void throwTooLong();

    std::array<std::uint8_t, maxSize> bytes_{};
    std::uint8_t size_ = 0;
};

}  // namespace kavrin
