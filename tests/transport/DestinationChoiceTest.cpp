#include "osc/transport/detail/DestinationChoice.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kavrin {
namespace {

std::vector<SocketAddress> addresses(const std::vector<std::string>& hosts) {
    std::vector<SocketAddress> result;
    for (const auto& host : hosts) result.push_back(SocketAddress::fromNumericHost(host, 9));
    return result;
}

constexpr FamilyAllowance allowed{};
constexpr FamilyAllowance preferred{false, false, true};
constexpr FamilyAllowance disabled{true, false, false};
constexpr FamilyAllowance deactivated{false, true, false};
constexpr FamilyAllowance disabledPreferred{true, false, true};
constexpr FamilyAllowance deactivatedPreferred{false, true, true};

// The first address of the preferred usable family; where only addresses of a family turned off
// remain, the reason, and the destination stays untouched.
TEST(DestinationChoice, FirstAddressOfThePreferredUsableFamilyOrWhyNone) {
    struct Case {
        std::vector<std::string> hosts;
        FamilyAllowance ipv4, ipv6;
        std::string chosenOrWhyNot;
    };
    const std::string noIPv6 = "DNS lookup found no IPv6 address(es).";
    const std::string noIPv4 = "DNS lookup found no IPv4 address(es).";
    // clang-format off
    const std::vector<Case> cases = {
        {{"::1", "127.0.0.1"}, allowed, allowed, "::1"},  // neutral: the resolver's order
        {{"127.0.0.1", "::1"}, allowed, allowed, "127.0.0.1"},
        {{"::1", "127.0.0.1"}, preferred, allowed, "127.0.0.1"},
        {{"127.0.0.1", "::1"}, allowed, preferred, "::1"},
        {{"10.0.0.1", "::2", "10.0.0.2", "::1"}, allowed, preferred, "::2"},  // first of its family
        {{"10.0.0.1"}, allowed, preferred, "10.0.0.1"},  // a preference without addresses
        {{"::1", "10.0.0.1"}, allowed, deactivatedPreferred, "10.0.0.1"},
        {{"127.0.0.1", "::1"}, disabledPreferred, allowed, "::1"},
        {{"127.0.0.1"}, disabled, allowed, "IPv4 has been disabled and " + noIPv6},
        {{"::1"}, allowed, disabled, "IPv6 has been disabled and " + noIPv4},
        {{"127.0.0.1"}, deactivated, allowed,
         "IPv4 has been deactivated due to bind/connect, and " + noIPv6},
        {{"::1", "::2"}, allowed, deactivated,
         "IPv6 has been deactivated due to bind/connect, and " + noIPv4},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(c.chosenOrWhyNot);
        const SocketAddress untouched = SocketAddress::fromNumericHost("10.9.9.9", 1);
        SocketAddress chosen = untouched;
        UdpSocketError error;
        if (chooseDestination(addresses(c.hosts), c.ipv4, c.ipv6, &chosen, &error)) {
            EXPECT_EQ(chosen.host(), c.chosenOrWhyNot);
            EXPECT_EQ(chosen.port(), 9);
            continue;
        }
        EXPECT_EQ(error.domain(), UdpSocketError::socketDomain);
        EXPECT_EQ(error.code(), UdpSocketError::other);
        EXPECT_EQ(error.description(), c.chosenOrWhyNot);
        EXPECT_EQ(chosen, untouched);
        EXPECT_FALSE(chooseDestination(addresses(c.hosts), c.ipv4, c.ipv6, &chosen, nullptr));
    }
}

TEST(DestinationChoiceDeathTest, ProgrammingErrorsStopWithTheirText) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    SocketAddress chosen;
    EXPECT_DEATH(chooseDestination({}, allowed, allowed, &chosen, nullptr),
                 "Expected at least one address");
    EXPECT_DEATH(chooseDestination({SocketAddress()}, allowed, allowed, &chosen, nullptr),
                 "Addresses array contains invalid address");
    EXPECT_DEATH(chooseDestination(addresses({"::1"}), preferred, preferred, &chosen, nullptr),
                 "Invalid config \\(cannot prefer both IPv4 and IPv6\\)");
}

}  // namespace
}  // namespace kavrin
