#include "osc/transport/SocketAddress.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace kavrin {

namespace {

// The blob's bytes as a sockaddr of type T; the blob holds no T aligned for direct reads.
template <class T>
T as(const SocketAddress& address) {
    T result{};
    std::memcpy(&result, address.data(), sizeof result);
    return result;
}

}  // namespace

void SocketAddress::throwTooLong() {
    throw std::length_error("socket address longer than a sockaddr_in6");
}

SocketAddress::SocketAddress(std::span<const std::uint8_t> bytes)
    : SocketAddress(bytes.data(), bytes.size()) {}

SocketAddress SocketAddress::ipv4(const in_addr& address, std::uint16_t port) {
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(port);
    sa.sin_addr = address;
    return {&sa, sizeof sa};
}

SocketAddress SocketAddress::ipv6(const in6_addr& address, std::uint16_t port) {
    sockaddr_in6 sa{};
    sa.sin6_family = AF_INET6;
    sa.sin6_port = htons(port);
    sa.sin6_addr = address;
    return {&sa, sizeof sa};
}

SocketAddress SocketAddress::fromNumericHost(const std::string& host, std::uint16_t port) {
    in_addr a4{};
    if (::inet_pton(AF_INET, host.c_str(), &a4) == 1) {
        return ipv4(a4, port);
    }
    in6_addr a6{};
    if (::inet_pton(AF_INET6, host.c_str(), &a6) == 1) {
        return ipv6(a6, port);
    }
    return {};
}

int SocketAddress::family() const {
    sockaddr header{};
    if (size_ < offsetof(sockaddr, sa_family) + sizeof header.sa_family) {
        return AF_UNSPEC;
    }
    std::memcpy(&header.sa_family, bytes_.data() + offsetof(sockaddr, sa_family),
                sizeof header.sa_family);
    return header.sa_family;
}

bool SocketAddress::isIPv4() const {
    return size_ >= sizeof(sockaddr_in) && family() == AF_INET;
}

bool SocketAddress::isIPv6() const {
    return size_ >= sizeof(sockaddr_in6) && family() == AF_INET6;
}

std::string SocketAddress::host() const {
    char text[INET6_ADDRSTRLEN] = {};
    if (isIPv4()) {
        const auto in = as<sockaddr_in>(*this);
        if (::inet_ntop(AF_INET, &in.sin_addr, text, sizeof text)) {
            return text;
        }
    } else if (isIPv6()) {
        const auto in6 = as<sockaddr_in6>(*this);
        if (::inet_ntop(AF_INET6, &in6.sin6_addr, text, sizeof text)) {
            return text;
        }
    }
    return {};
}

std::uint16_t SocketAddress::port() const {
    if (isIPv4()) {
        return ntohs(as<sockaddr_in>(*this).sin_port);
    }
    if (isIPv6()) {
        return ntohs(as<sockaddr_in6>(*this).sin6_port);
    }
    return 0;
}

SocketAddress SocketAddress::withPort(std::uint16_t port) const {
    if (isIPv4()) {
        auto in = as<sockaddr_in>(*this);
        in.sin_port = htons(port);
        return {&in, sizeof in};
    }
    if (isIPv6()) {
        auto in6 = as<sockaddr_in6>(*this);
        in6.sin6_port = htons(port);
        return {&in6, sizeof in6};
    }
    return *this;
}

bool SocketAddress::sameEndpoint(const SocketAddress& other) const {
    if (isIPv4() && other.isIPv4()) {
        const auto x = as<sockaddr_in>(*this);
        const auto y = as<sockaddr_in>(other);
        return x.sin_port == y.sin_port && x.sin_addr.s_addr == y.sin_addr.s_addr;
    }
    if (isIPv6() && other.isIPv6()) {
        const auto x = as<sockaddr_in6>(*this);
        const auto y = as<sockaddr_in6>(other);
        return x.sin6_port == y.sin6_port &&
               std::memcmp(&x.sin6_addr, &y.sin6_addr, sizeof x.sin6_addr) == 0;
    }
    return false;
}

std::string SocketAddress::description() const {
    std::string text = host();
    if (text.empty()) {
        return text;
    }
    if (isIPv6()) {
        text = "[" + text + "]";
    }
    return text + ":" + std::to_string(port());
}

bool operator==(const SocketAddress& a, const SocketAddress& b) {
    return std::ranges::equal(a.bytes(), b.bytes());
}

}  // namespace kavrin
