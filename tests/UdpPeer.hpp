#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <utility>

namespace kavrin::test {

// A plain IPv4 UDP socket, independent of the library under test, for the peers of the monitor,
// of the codec's interop tests and of the transport's servers and clients. `address` "0.0.0.0"
// holds the port on every interface.
class UdpPeer {
  public:
    explicit UdpPeer(std::uint16_t port = 0, const char* address = "127.0.0.1") {
        fd_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        EXPECT_GE(fd_, 0) << std::strerror(errno);
        sockaddr_in local{};
        local.sin_family = AF_INET;
        local.sin_port = htons(port);
        ::inet_pton(AF_INET, address, &local.sin_addr);
        EXPECT_EQ(::bind(fd_, reinterpret_cast<sockaddr*>(&local), sizeof local), 0)
            << "bind " << address << ":" << port << ": " << std::strerror(errno);
        socklen_t length = sizeof local;
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&local), &length);
        port_ = ntohs(local.sin_port);
    }
    ~UdpPeer() { ::close(fd_); }
    UdpPeer(const UdpPeer&) = delete;
    UdpPeer& operator=(const UdpPeer&) = delete;

    std::uint16_t port() const { return port_; }

    // The next datagram, or nothing when none comes within `timeout`.
    std::optional<std::vector<std::uint8_t>> receive(std::chrono::milliseconds timeout) {
        auto datagram = receiveFrom(timeout);
        if (!datagram) return std::nullopt;
        return std::move(datagram->first);
    }

    // The next datagram within `timeout` and the port it came from, or nothing.
    std::optional<std::pair<std::vector<std::uint8_t>, std::uint16_t>> receiveFrom(
        std::chrono::milliseconds timeout) {
        pollfd readable{fd_, POLLIN, 0};
        if (::poll(&readable, 1, static_cast<int>(timeout.count())) != 1) {
            return std::nullopt;
        }
        std::vector<std::uint8_t> datagram(65536);
        sockaddr_in from{};
        socklen_t length = sizeof from;
        const ssize_t size = ::recvfrom(fd_, datagram.data(), datagram.size(), 0,
                                        reinterpret_cast<sockaddr*>(&from), &length);
        if (size < 0) {
            return std::nullopt;
        }
        datagram.resize(static_cast<std::size_t>(size));
        return std::make_pair(std::move(datagram), ntohs(from.sin_port));
    }

    void sendTo(std::uint16_t port, const std::vector<std::uint8_t>& datagram) {
        sockaddr_in remote{};
        remote.sin_family = AF_INET;
        remote.sin_port = htons(port);
        remote.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(::sendto(fd_, datagram.data(), datagram.size(), 0,
                           reinterpret_cast<sockaddr*>(&remote), sizeof remote),
                  static_cast<ssize_t>(datagram.size()))
            << std::strerror(errno);
    }

  private:
    int fd_ = -1;
    std::uint16_t port_ = 0;
};

// A port nobody listens on right now (the kernel's pick; free again once the socket closes).
inline std::uint16_t freeUdpPort() {
    return UdpPeer().port();
}

// The bytes of an OSC message with `address` and no values: the address padded with zeros to
// a multiple of 4, then the type tag string "," padded the same way.
inline std::vector<std::uint8_t> oscMessageBytes(const std::string& address) {
    std::vector<std::uint8_t> bytes(address.begin(), address.end());
    bytes.resize((address.size() / 4 + 1) * 4, 0);
    bytes.insert(bytes.end(), {',', 0, 0, 0});
    return bytes;
}

}  // namespace kavrin::test
