#include "osc/transport/SocketAddress.hpp"

#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace kavrin {

SocketAddress::SocketAddress(const void* bytes, std::size_t size) {
    if (size > maxSize) {
        throw std::length_error("socket address longer than a sockaddr_in6");
    }
    if (size > 0) {
        std::memcpy(bytes_.data(), bytes, size);
    }
    size_ = static_cast<std::uint8_t>(size);
}

SocketAddress::SocketAddress(std::span<const std::uint8_t> bytes)
    : SocketAddress(bytes.data(), bytes.size()) {}

int SocketAddress::family() const {
    sockaddr header{};
    if (size_ < offsetof(sockaddr, sa_family) + sizeof header.sa_family) {
        return AF_UNSPEC;
    }
    std::memcpy(&header.sa_family, bytes_.data() + offsetof(sockaddr, sa_family),
                sizeof header.sa_family);
    return header.sa_family;
}

bool operator==(const SocketAddress& a, const SocketAddress& b) {
    return std::ranges::equal(a.bytes(), b.bytes());
}

}  // namespace kavrin
