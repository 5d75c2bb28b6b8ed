#include "osc/transport/TcpSocketError.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

namespace kavrin {
namespace {

// The texts are part of the interface (docs/tcp.md lists them).
TEST(TcpSocketErrors, CodesAndTexts) {
    const struct {
        TcpSocketError error;
        int code;
        const char* text;
    } cases[] = {
        {TcpSocketError::connectTimeoutError(), 3, "Attempt to connect to host timed out"},
        {TcpSocketError::readTimeoutError(), 4, "Read operation timed out"},
        {TcpSocketError::writeTimeoutError(), 5, "Write operation timed out"},
        {TcpSocketError::readMaxedOutError(), 6, "Read operation reached set maximum length"},
        {TcpSocketError::closedByPeerError(), 7, "Socket closed by remote peer"},
        {TcpSocketError::idleTimeoutError(), 8, "Connection idle for too long"},
        {TcpSocketError::writeQueueFullError(), 9, "Too much data waiting to be written"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.error.domain(), "TcpSocketErrorDomain");
        EXPECT_EQ(c.error.code(), c.code) << c.text;
        EXPECT_EQ(c.error.description(), c.text);
        EXPECT_STREQ(c.error.what(), c.text);
    }
    errno = ECONNREFUSED;
    const TcpSocketError refused = TcpSocketError::errnoError("Error in connect() function");
    EXPECT_EQ(refused.domain(), "NSPOSIXErrorDomain");
    EXPECT_EQ(refused.code(), ECONNREFUSED);
    EXPECT_EQ(refused.description(), std::strerror(ECONNREFUSED));
    EXPECT_EQ(refused.failureReason(), "Error in connect() function");
}

}  // namespace
}  // namespace kavrin
