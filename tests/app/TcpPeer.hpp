#pragma once

#include <cerrno>
#include <cstring>

#include "../transport/TcpTestSupport.hpp"

namespace kavrin::test {

// A plain TCP listener on 127.0.0.1, independent of the library under test, that takes one
// connection at a time and writes to it whatever bytes a test gives: a console gone wrong.
class TcpPeer {
  public:
    TcpPeer() : listener_(tcpTest::rawListen("127.0.0.1", &port_, 4)) {
        EXPECT_TRUE(listener_) << std::strerror(errno);
    }

    std::uint16_t port() const { return port_; }

    // Takes the next connection, hanging up the one before; false when none comes in time.
    bool accept(std::chrono::milliseconds bound = std::chrono::seconds(5)) {
        hangUp();
        connection_ = tcpTest::rawAccept(listener_.get(), bound);
        return bool(connection_);
    }
    void write(const std::vector<std::uint8_t>& bytes) {
        EXPECT_TRUE(tcpTest::sendAll(connection_.get(), bytes)) << std::strerror(errno);
    }
    // Some bytes the monitor sent, or none within `bound`.
    std::vector<std::uint8_t> read(std::chrono::milliseconds bound = std::chrono::seconds(5)) {
        std::vector<std::uint8_t> bytes(65536);
        const ssize_t size = tcpTest::waitReadable(connection_.get(), bound)
                                 ? ::recv(connection_.get(), bytes.data(), bytes.size(), 0)
                                 : 0;
        bytes.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
        return bytes;
    }
    void hangUp() { connection_ = tcpTest::Fd(); }

  private:
    std::uint16_t port_ = 0;
    tcpTest::Fd listener_;
    tcpTest::Fd connection_;
};

}  // namespace kavrin::test
