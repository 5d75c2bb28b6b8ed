#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <vector>

namespace kavrin::test {

// A plain TCP listener on 127.0.0.1, independent of the library under test, that takes one
// connection at a time and writes to it whatever bytes a test gives: a console gone wrong.
class TcpPeer {
  public:
    TcpPeer() {
        listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in local{};
        local.sin_family = AF_INET;
        local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof local;
        EXPECT_TRUE(::bind(listener_, reinterpret_cast<sockaddr*>(&local), length) == 0 &&
                    ::listen(listener_, 4) == 0 &&
                    ::getsockname(listener_, reinterpret_cast<sockaddr*>(&local), &length) == 0)
            << std::strerror(errno);
        port_ = ntohs(local.sin_port);
    }
    ~TcpPeer() {
        hangUp();
        ::close(listener_);
    }
    TcpPeer(const TcpPeer&) = delete;
    TcpPeer& operator=(const TcpPeer&) = delete;

    std::uint16_t port() const { return port_; }

    // Takes the next connection, hanging up the one before; false when none comes in time.
    bool accept(std::chrono::milliseconds bound = std::chrono::seconds(5)) {
        hangUp();
        pollfd incoming{listener_, POLLIN, 0};
        if (::poll(&incoming, 1, static_cast<int>(bound.count())) != 1) return false;
        connection_ = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        return connection_ >= 0;
    }
    void write(const std::vector<std::uint8_t>& bytes) {
        EXPECT_EQ(::send(connection_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()))
            << std::strerror(errno);
    }
    // Some bytes the monitor sent, or none within `bound`.
    std::vector<std::uint8_t> read(std::chrono::milliseconds bound = std::chrono::seconds(5)) {
        pollfd readable{connection_, POLLIN, 0};
        std::vector<std::uint8_t> bytes(65536);
        const ssize_t size = ::poll(&readable, 1, static_cast<int>(bound.count())) == 1
                                 ? ::recv(connection_, bytes.data(), bytes.size(), 0)
                                 : 0;
        bytes.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
        return bytes;
    }
    void hangUp() {
        if (connection_ >= 0) ::close(connection_);
        connection_ = -1;
    }

  private:
    int listener_ = -1;
    int connection_ = -1;
    std::uint16_t port_ = 0;
};

}  // namespace kavrin::test
