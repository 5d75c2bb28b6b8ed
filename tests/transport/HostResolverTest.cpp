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

}  // namespace
}  // namespace kavrin
