// What the sockets' tests cannot reach through a name: the resolver's own order of several
// addresses of both families, and the checks that stop a caller's programming error.
#include "osc/transport/detail/DestinationChoice.hpp"

namespace kavrin {
namespace {

std::vector<SocketAddress> addresses(const std::vector<std::string>& hosts) {
    std::vector<SocketAddress> result;
    for (const auto& host : hosts) result.push_back(SocketAddress::fromNumericHost(host, 9));
    return result;
}

constexpr FamilyAllowance allowed{};
constexpr FamilyAllowance preferred{false, false, true};

TEST(DestinationChoice, FirstAddressOfThePreferredFamilyElseTheResolversFirst) {
    struct Case {
        std::vector<std::string> hosts;
        FamilyAllowance ipv4, ipv6;
        std::string chosen;
    };
    const Case cases[] = {
        {{"::1", "127.0.0.1"}, allowed, allowed, "::1"},
        {{"::1", "127.0.0.1"}, preferred, allowed, "127.0.0.1"},
        {{"10.0.0.1", "::2", "10.0.0.2", "::1"}, allowed, preferred, "::2"},
    };
    for (const Case& c : cases) {
        SocketAddress chosen;
        ASSERT_TRUE(chooseDestination(addresses(c.hosts), c.ipv4, c.ipv6, &chosen, nullptr));
        EXPECT_EQ(chosen.host(), c.chosen);
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
