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

// Resolves on a queue nobody drains until then, so an answer from inside the call would show:
// the addresses as text, or the error's domain and text.
std::string resolve(const HostResolver& resolver, const std::string& host, std::uint16_t port) {
    auto queue = std::make_shared<ManualQueue>();
    std::optional<std::string> answer;
    resolver.resolve(
        host, port, queue,
        [&](std::vector<SocketAddress> addresses, std::optional<SocketError> error) {
            EXPECT_TRUE(queue->isCurrent());
            answer = error ? error->domain() + ": " + error->description() : "";
            for (const auto& a : addresses)
                *answer += (answer->empty() ? "" : " ") + a.description();
        });
    EXPECT_FALSE(answer.has_value()) << "answered from inside the call";
    queue->drainUntil([&] { return answer.has_value(); }, 10s);
    return answer.value_or("no answer");
}

TEST(HostResolver, AnswersOnTheGivenQueueForEitherSocketKind) {
    const HostResolver udp(SOCK_DGRAM, IPPROTO_UDP);
    const HostResolver tcp(SOCK_STREAM, IPPROTO_TCP);
    for (const HostResolver* resolver : {&udp, &tcp}) {
        SCOPED_TRACE(resolver == &udp ? "UDP" : "TCP");
        EXPECT_EQ(resolve(*resolver, "127.0.0.1", 8000), "127.0.0.1:8000");
        EXPECT_EQ(resolve(*resolver, "::1", 8001), "[::1]:8001");
        // The loopback names need no lookup: IPv4 first.
        EXPECT_EQ(resolve(*resolver, "loopback", 9), "127.0.0.1:9 [::1]:9");
        EXPECT_EQ(resolve(*resolver, "", 9),
                  std::string(SocketError::paramDomain) +
                      ": The host param is nil. Should be domain name or IP address string.");
    }
    // Either socket takes an error of that domain as its own bad-param error.
    const SocketError unusable = SocketError::unusableParam("x");
    EXPECT_EQ(UdpSocketError(unusable).code(), UdpSocketError::badParam);
    EXPECT_EQ(TcpSocketError(unusable).domain(), TcpSocketError::socketDomain);
}

// The addresses to bind to for an interface given by a name, a device or an address, as
// "IPv4 address | IPv6 address", each empty when there is none.
std::string lookUp(std::optional<std::string> interface, std::uint16_t port) {
    const auto found = InterfaceAddresses::lookUp(std::move(interface), port);
    return found.ipv4.description() + " | " + found.ipv6.description();
}

TEST(InterfaceAddresses, WildcardLoopbackNamesAndNumbers) {
    EXPECT_EQ(lookUp(std::nullopt, 8000), "0.0.0.0:8000 | [::]:8000");
    for (const char* name : {"localhost", "loopback"}) {
        EXPECT_TRUE(InterfaceAddresses::isLoopbackName(name));
        EXPECT_EQ(lookUp(name, 8000), "127.0.0.1:8000 | [::1]:8000");
    }
    EXPECT_FALSE(InterfaceAddresses::isLoopbackName("lo"));
    // By name: the loopback device surely carries 127.0.0.1.
    EXPECT_TRUE(lookUp("lo", 7).starts_with("127.0.0.1:7 | "));
    // By address: the interface's own family only, found on the device or else taken as is.
    EXPECT_EQ(lookUp("::1", 7), " | [::1]:7");
    EXPECT_EQ(lookUp("192.0.2.1", 7), "192.0.2.1:7 | ");
    EXPECT_EQ(lookUp("no-such-interface0", 7), " | ");
}

}  // namespace
}  // namespace kavrin
