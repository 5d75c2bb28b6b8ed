#include "osc/transport/detail/HostResolver.hpp"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "osc/dispatch/ManualQueue.hpp"
#include "osc/transport/TcpSocketError.hpp"
#include "osc/transport/UdpSocketError.hpp"
#include "osc/transport/detail/InterfaceAddresses.hpp"

namespace kavrin {
namespace {

using namespace std::chrono_literals;

struct Answer {
    std::vector<std::string> addresses;  // as text
    std::optional<SocketError> error;
};

// Resolves on a queue nobody drains until then, so an answer from inside the call would show.
std::optional<Answer> resolve(const HostResolver& resolver, const std::string& host,
                              std::uint16_t port) {
    auto queue = std::make_shared<ManualQueue>();
    std::optional<Answer> answer;
    resolver.resolve(
        host, port, queue,
        [&](std::vector<SocketAddress> addresses, std::optional<SocketError> error) {
            EXPECT_TRUE(queue->isCurrent());
            answer.emplace();
            for (const auto& a : addresses) answer->addresses.push_back(a.description());
            answer->error = std::move(error);
        });
    EXPECT_FALSE(answer.has_value()) << "answered from inside the call";
    queue->drainUntil([&] { return answer.has_value(); }, 10s);
    return answer;
}

TEST(HostResolver, AnswersOnTheGivenQueueForEitherSocketKind) {
    const HostResolver udp(SOCK_DGRAM, IPPROTO_UDP);
    const HostResolver tcp(SOCK_STREAM, IPPROTO_TCP);
    for (const HostResolver* resolver : {&udp, &tcp}) {
        SCOPED_TRACE(resolver == &udp ? "UDP" : "TCP");
        auto numeric = resolve(*resolver, "127.0.0.1", 8000);
        ASSERT_TRUE(numeric);
        EXPECT_FALSE(numeric->error) << numeric->error->description();
        EXPECT_EQ(numeric->addresses, std::vector<std::string>{"127.0.0.1:8000"});

        auto six = resolve(*resolver, "::1", 8001);
        ASSERT_TRUE(six);
        EXPECT_EQ(six->addresses, std::vector<std::string>{"[::1]:8001"});

        // The loopback names need no lookup: IPv4 first.
        auto loopback = resolve(*resolver, "loopback", 9);
        ASSERT_TRUE(loopback);
        EXPECT_EQ(loopback->addresses, (std::vector<std::string>{"127.0.0.1:9", "[::1]:9"}));

        auto empty = resolve(*resolver, "", 9);
        ASSERT_TRUE(empty);
        ASSERT_TRUE(empty->error);
        EXPECT_EQ(empty->error->domain(), SocketError::paramDomain);
        EXPECT_EQ(UdpSocketError(*empty->error).code(), UdpSocketError::badParam);
        EXPECT_EQ(TcpSocketError(*empty->error).domain(), TcpSocketError::socketDomain);
        EXPECT_EQ(empty->error->description(),
                  "The host param is nil. Should be domain name or IP address string.");
        EXPECT_TRUE(empty->addresses.empty());
    }
}

// The addresses to bind to for an interface given by a name, a device or an address.
TEST(InterfaceAddresses, WildcardLoopbackNamesAndNumbers) {
    const auto wildcard = InterfaceAddresses::lookUp(std::nullopt, 8000);
    EXPECT_EQ(wildcard.ipv4.description(), "0.0.0.0:8000");
    EXPECT_EQ(wildcard.ipv6.description(), "[::]:8000");

    for (const char* name : {"localhost", "loopback"}) {
        SCOPED_TRACE(name);
        EXPECT_TRUE(InterfaceAddresses::isLoopbackName(name));
        const auto loopback = InterfaceAddresses::lookUp(std::string(name), 8000);
        EXPECT_EQ(loopback.ipv4.description(), "127.0.0.1:8000");
        EXPECT_EQ(loopback.ipv6.description(), "[::1]:8000");
    }
    EXPECT_FALSE(InterfaceAddresses::isLoopbackName("lo"));

    // By name: the loopback device surely carries 127.0.0.1.
    EXPECT_EQ(InterfaceAddresses::lookUp(std::string("lo"), 7).ipv4.description(), "127.0.0.1:7");

    // By address: the interface's own family only, found on the device or else taken as is.
    const auto byAddress = InterfaceAddresses::lookUp(std::string("::1"), 7);
    EXPECT_TRUE(byAddress.ipv4.empty());
    EXPECT_EQ(byAddress.ipv6.description(), "[::1]:7");
    const auto elsewhere = InterfaceAddresses::lookUp(std::string("192.0.2.1"), 7);
    EXPECT_EQ(elsewhere.ipv4.description(), "192.0.2.1:7");
    EXPECT_TRUE(elsewhere.ipv6.empty());

    const auto unknown = InterfaceAddresses::lookUp(std::string("no-such-interface0"), 7);
    EXPECT_TRUE(unknown.ipv4.empty());
    EXPECT_TRUE(unknown.ipv6.empty());
}

}  // namespace
}  // namespace kavrin
