#include "osc/transport/detail/InterfaceAddresses.hpp"

#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace kavrin {
namespace {

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
