#include "osc/transport/SocketAddress.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <tuple>

namespace kavrin {
namespace {

// What an address says of itself: "family size IPv4|IPv6 host port description".
std::string facts(const SocketAddress& a) {
    return std::to_string(a.family()) + " " + std::to_string(a.size()) +
           (a.isIPv4() ? " IPv4" : "") + (a.isIPv6() ? " IPv6" : "") + " " + a.host() + " " +
           std::to_string(a.port()) + " " + a.description();
}

TEST(SocketAddress, NumericHostsRoundTripThroughTheirTextFormsAndOtherBlobsHaveNeither) {
    const std::string four =
        std::to_string(AF_INET) + " " + std::to_string(sizeof(sockaddr_in)) + " IPv4 ";
    const std::string six =
        std::to_string(AF_INET6) + " " + std::to_string(sizeof(sockaddr_in6)) + " IPv6 ";
    const std::tuple<std::string, std::uint16_t, std::string> cases[] = {
        {"127.0.0.1", 8000, four + "127.0.0.1 8000 127.0.0.1:8000"},
        {"0.0.0.0", 0, four + "0.0.0.0 0 0.0.0.0:0"},
        {"::1", 8000, six + "::1 8000 [::1]:8000"},
        {"fe80::1", 65535, six + "fe80::1 65535 [fe80::1]:65535"},
        {"::ffff:1.2.3.4", 9, six + "::ffff:1.2.3.4 9 [::ffff:1.2.3.4]:9"},
    };
    for (const auto& [host, port, expected] : cases) {
        EXPECT_EQ(facts(SocketAddress::fromNumericHost(host, port)), expected);
    }
    // The in_addr and in6_addr forms make the same bytes as the text.
    EXPECT_EQ(SocketAddress::ipv4(in_addr{htonl(INADDR_LOOPBACK)}, 7),
              SocketAddress::fromNumericHost("127.0.0.1", 7));
    EXPECT_EQ(SocketAddress::ipv6(in6addr_loopback, 7), SocketAddress::fromNumericHost("::1", 7));
    // Names are not numeric text, not even the loopback ones.
    EXPECT_TRUE(SocketAddress::fromNumericHost("localhost", 9).empty());
    EXPECT_TRUE(SocketAddress::fromNumericHost("", 9).empty());
    EXPECT_TRUE(SocketAddress::fromNumericHost("1.2.3.4:5", 9).empty());

    // A blob that is no IP address has no host or port; one too long for any address is refused.
    sockaddr_in6 short6{};
    short6.sin6_family = AF_INET6;
    short6.sin6_port = htons(8001);
    sockaddr_un local{};
    local.sun_family = AF_UNIX;
    const std::vector<SocketAddress> blobs = {
        SocketAddress(),
        SocketAddress(&short6, 10),  // too short for its family
        SocketAddress(&local, SocketAddress::maxSize),
    };
    for (const SocketAddress& blob : blobs) {
        EXPECT_EQ(facts(blob),
                  std::to_string(blob.family()) + " " + std::to_string(blob.size()) + "  0 ");
        EXPECT_EQ(blob.withPort(9), blob);
        EXPECT_FALSE(blob.sameEndpoint(blob));
    }
    EXPECT_THROW(SocketAddress(std::vector<std::uint8_t>(SocketAddress::maxSize + 1)),
                 std::length_error);
}

TEST(SocketAddress, EndpointsCompareFamilyAddressAndPortOnly) {
    sockaddr_in6 scoped{};
    scoped.sin6_family = AF_INET6;
    scoped.sin6_port = htons(8000);
    scoped.sin6_flowinfo = htonl(5);
    scoped.sin6_scope_id = 3;
    ASSERT_EQ(::inet_pton(AF_INET6, "fe80::1", &scoped.sin6_addr), 1);
    const SocketAddress withScope(&scoped, sizeof scoped);
    const SocketAddress plain = SocketAddress::fromNumericHost("fe80::1", 8000);

    EXPECT_TRUE(withScope.sameEndpoint(plain));
    EXPECT_FALSE(withScope == plain) << "== compares every byte";
    EXPECT_FALSE(plain.sameEndpoint(plain.withPort(8001)));
    EXPECT_FALSE(plain.sameEndpoint(SocketAddress::fromNumericHost("fe80::2", 8000)));
    EXPECT_FALSE(SocketAddress::fromNumericHost("::ffff:127.0.0.1", 8000)
                     .sameEndpoint(SocketAddress::fromNumericHost("127.0.0.1", 8000)));
    EXPECT_TRUE(SocketAddress::fromNumericHost("127.0.0.1", 8000)
                    .sameEndpoint(SocketAddress::fromNumericHost("127.0.0.1", 8000)));

    // Another port changes the port alone: scope and flow info stay.
    const SocketAddress moved = withScope.withPort(9000);
    EXPECT_EQ(moved.port(), 9000);
    sockaddr_in6 read{};
    std::memcpy(&read, moved.data(), sizeof read);
    EXPECT_EQ(read.sin6_scope_id, 3u);
    EXPECT_EQ(read.sin6_flowinfo, htonl(5));
    EXPECT_EQ(moved.withPort(8000), withScope);
}

}  // namespace
}  // namespace kavrin
