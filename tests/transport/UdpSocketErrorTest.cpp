#include "osc/transport/UdpSocketError.hpp"

#include <gtest/gtest.h>
#include <netdb.h>

#include <cerrno>
#include <cstring>

namespace kavrin {
namespace {

TEST(UdpSocketErrors, FactoriesCarryDomainCodeAndText) {
    EXPECT_EQ(UdpSocketError::sendTimeoutError().description(), "Send operation timed out");
    EXPECT_EQ(UdpSocketError::sendTimeoutError().code(), 3);
    EXPECT_EQ(UdpSocketError::socketClosedError().description(), "Socket closed");
    EXPECT_EQ(UdpSocketError::socketClosedError().code(), 4);
    EXPECT_STREQ(UdpSocketError::otherError("x").what(), "x");
    errno = ECONNREFUSED;
    const UdpSocketError posix = UdpSocketError::errnoError("Error in send() function.");
    EXPECT_EQ(posix.domain(), "NSPOSIXErrorDomain");
    EXPECT_EQ(posix.code(), ECONNREFUSED);
    EXPECT_EQ(posix.description(), std::strerror(ECONNREFUSED));
    EXPECT_EQ(posix.failureReason(), "Error in send() function.");
    const UdpSocketError lookup = UdpSocketError::gaiError(EAI_FAIL);
    EXPECT_EQ(lookup.domain(), "kCFStreamErrorDomainNetDB");
    EXPECT_EQ(lookup.description(), gai_strerror(EAI_FAIL));
    EXPECT_FALSE(lookup.failureReason().has_value());
}

}  // namespace
}  // namespace kavrin
