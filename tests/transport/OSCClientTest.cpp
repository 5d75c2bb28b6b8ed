#include "osc/transport/OSCClient.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include "osc/codec/OSCBundle.hpp"
#include "osc/codec/OSCError.hpp"
#include "osc/dispatch/ManualQueue.hpp"
#include "osc/transport/UdpSocketError.hpp"

using namespace kavrin;

namespace {

// A raw IPv4 receiver on 127.0.0.1 with a kernel-chosen port.
class Receiver {
  public:
    Receiver() : fd_(::socket(AF_INET, SOCK_DGRAM, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (fd_ >= 0 && ::bind(fd_, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
            ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
            port_ = ntohs(address.sin_port);
        }
    }
    ~Receiver() {
        if (fd_ >= 0) ::close(fd_);
    }
    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;

    std::uint16_t port() const { return port_; }
    // The next datagram within timeoutMs, or nothing.
    std::optional<std::vector<std::uint8_t>> receive(int timeoutMs) const {
        pollfd entry{fd_, POLLIN, 0};
        if (::poll(&entry, 1, timeoutMs) != 1) return std::nullopt;
        std::vector<std::uint8_t> buffer(65536);
        const ssize_t size = ::recv(fd_, buffer.data(), buffer.size(), 0);
        if (size < 0) return std::nullopt;
        buffer.resize(static_cast<std::size_t>(size));
        return buffer;
    }

  private:
    int fd_;
    std::uint16_t port_ = 0;
};

}  // namespace

TEST(OSCClient, SendsExactlyOneDatagramHoldingThePacketsEncoding) {
    Receiver receiver;
    ASSERT_NE(receiver.port(), 0);
    OSCClient client;
    client.send(OSCMessage("/eos/ping"), "127.0.0.1", receiver.port());
    const std::vector<std::uint8_t> ping = {
        '/', 'e', 'o', 's', '/', 'p', 'i', 'n', 'g', 0, 0, 0,  // address, padded to 12
        ',', 0,   0,   0,                                      // empty type tag string
    };
    const auto datagram = receiver.receive(5000);
    ASSERT_TRUE(datagram);
    EXPECT_EQ(*datagram, ping);
    EXPECT_FALSE(receiver.receive(100)) << "more than one datagram";

    // Bundles go out the same way, and "localhost" is resolved by the socket.
    const OSCBundle bundle(OSCTimeTag::immediate(), {OSCMessage("/a"), OSCMessage("/b")});
    client.send(bundle, "localhost", receiver.port());
    const auto second = receiver.receive(5000);
    ASSERT_TRUE(second);
    EXPECT_EQ(*second, bundle.rawData());
}

TEST(OSCClient, ReportsOnlyEncodingErrors) {
    Receiver receiver;
    OSCClient client;
    EXPECT_NO_THROW(client.send(OSCMessage("/lost"), "no-such-host.invalid", receiver.port()));

    OSCBundle tooDeep(OSCTimeTag::immediate());
    for (int depth = 0; depth <= OSCBundle::maximumDepth + 1; ++depth) {
        tooDeep = OSCBundle(OSCTimeTag::immediate(), {std::move(tooDeep)});
    }
    EXPECT_THROW(client.send(tooDeep, "127.0.0.1", receiver.port()), OSCEncodeError);

    // The failed lookup and the refused packet did not stop the client.
    client.send(OSCMessage("/after"), "127.0.0.1", receiver.port());
    const auto datagram = receiver.receive(5000);
    ASSERT_TRUE(datagram);
    EXPECT_EQ(*datagram, OSCMessage("/after").rawData());
    EXPECT_FALSE(receiver.receive(100));
}

TEST(OSCClient, AClientReleasedRightAfterSendingStillDelivers) {
    // Resolution is asynchronous even for numeric hosts: a release that closed the socket at
    // once lost what was still queued.
    Receiver receiver;
    ASSERT_NE(receiver.port(), 0);
    std::vector<std::vector<std::uint8_t>> expected;
    for (int i = 0; i < 10; ++i) {
        OSCClient client;
        const OSCMessage first("/released/" + std::to_string(i) + "/a");
        const OSCMessage second("/released/" + std::to_string(i) + "/b");
        client.send(first, i % 2 == 0 ? "127.0.0.1" : "localhost", receiver.port());
        client.send(second, "127.0.0.1", receiver.port());
        expected.push_back(first.rawData());
        expected.push_back(second.rawData());
    }
    std::vector<std::vector<std::uint8_t>> received;
    while (received.size() < expected.size()) {
        const auto datagram = receiver.receive(5000);
        ASSERT_TRUE(datagram) << received.size() << " of " << expected.size() << " arrived";
        received.push_back(*datagram);
    }
    std::sort(received.begin(), received.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(received, expected);
}

TEST(OSCClient, AClientForOneTargetSendsThereAndHearsOfEveryFailure) {
    Receiver receiver;
    ASSERT_NE(receiver.port(), 0);
    OSCClient fixed("127.0.0.1", receiver.port());
    fixed.send(OSCMessage("/fixed"));
    const auto datagram = receiver.receive(5000);
    ASSERT_TRUE(datagram);
    EXPECT_EQ(*datagram, OSCMessage("/fixed").rawData());

    // Failures come with their destination; what went out reports nothing.
    auto queue = std::make_shared<ManualQueue>();
    std::vector<std::string> failures;
    OSCClient reporting(
        "no-such-host.invalid", 9,
        [&](const std::string& host, std::uint16_t port, const UdpSocketError& error) {
            EXPECT_TRUE(queue->isCurrent());
            failures.push_back(host + ":" + std::to_string(port) + " " + error.domain());
        },
        queue);
    reporting.send(OSCMessage("/lost"));
    reporting.send(OSCMessage("/fine"), "127.0.0.1", receiver.port());
    reporting.send(OSCMessage("/lost/too"));
    ASSERT_TRUE(queue->drainUntil([&] { return failures.size() == 2; }, std::chrono::seconds(10)));
    EXPECT_EQ(failures,
              (std::vector<std::string>(
                  2, "no-such-host.invalid:9 " + std::string(UdpSocketError::netDBDomain))));
    EXPECT_TRUE(receiver.receive(5000));
    EXPECT_FALSE(
        queue->drainUntil([&] { return failures.size() > 2; }, std::chrono::milliseconds(200)));

    OSCClient plain;
    EXPECT_THROW(plain.send(OSCMessage("/nowhere")), std::logic_error);
}
