#pragma once

// A TCP peer on loopback that writes what a test gives it byte for byte and reads what comes
// back: HTTP requests, well formed or not, and a WebSocket handshake with frames. Every wait
// has a bound.

#include <cstdint>
#include <string_view>

#include "../transport/TcpTestSupport.hpp"

namespace kavrin::queryTest {

class RawPeer {
  public:
    explicit RawPeer(std::uint16_t port) : fd_(tcpTest::rawConnect("127.0.0.1", port)) {}
    /// The other end of a connection accepted by a listener of the test's own.
    explicit RawPeer(tcpTest::Fd accepted) : fd_(std::move(accepted)) {}

    bool connected() const { return bool(fd_); }
    bool write(std::string_view bytes) {
        return ::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(bytes.size());
    }
    /// Reads until `done` says the text is whole, the peer closes or the bound passes.
    template <class Done>
    std::string readUntil(Done done, std::chrono::milliseconds bound = std::chrono::seconds(5)) {
        const auto deadline = std::chrono::steady_clock::now() + bound;
        while (!done(received_)) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0 || !tcpTest::waitReadable(fd_.get(), left)) break;
            char buffer[65536];
            const ssize_t length = ::recv(fd_.get(), buffer, sizeof buffer, 0);
            if (length <= 0) {
                closed_ = true;
                break;
            }
            received_.append(buffer, static_cast<std::size_t>(length));
        }
        return received_;
    }
    /// Everything until the peer closes (a request sent with Connection: close).
    std::string readAll() {
        return readUntil([](const std::string&) { return false; });
    }
    bool closed() const { return closed_; }

    /// The handshake of RFC 6455, with the example key; true once the server has switched.
    bool upgrade(const std::string& origin = {}) {
        write("GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
              "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n" +
              (origin.empty() ? "" : "Origin: " + origin + "\r\n") + "\r\n");
        readUntil([](const std::string& text) { return text.find("\r\n\r\n") != text.npos; });
        const bool switched = received_.starts_with("HTTP/1.1 101");
        received_.erase(0, received_.find("\r\n\r\n") + 4);
        return switched;
    }
    /// One masked frame, as a client must send: opcode 1 text, 2 binary.
    bool sendFrame(int opcode, std::string_view payload) {
        std::string frame(1, static_cast<char>(0x80 | opcode));
        if (payload.size() < 126) {
            frame += static_cast<char>(0x80 | payload.size());
        } else {
            frame += static_cast<char>(0x80 | 126);
            frame += static_cast<char>(payload.size() >> 8);
            frame += static_cast<char>(payload.size() & 0xFF);
        }
        const char mask[4] = {1, 2, 3, 4};
        frame.append(mask, 4);
        for (std::size_t i = 0; i < payload.size(); ++i) frame += static_cast<char>(payload[i] ^ mask[i % 4]);
        return write(frame);
    }

  private:
    tcpTest::Fd fd_;
    bool closed_ = false;
    std::string received_;
};

/// The status of an HTTP response, 0 when there is none.
inline int statusOf(const std::string& response) {
    return response.starts_with("HTTP/1.1 ") && response.size() >= 12 ? std::stoi(response.substr(9, 3)) : 0;
}

/// The body of an HTTP response.
inline std::string bodyOf(const std::string& response) {
    const auto end = response.find("\r\n\r\n");
    return end == response.npos ? std::string() : response.substr(end + 4);
}

}  // namespace kavrin::queryTest
