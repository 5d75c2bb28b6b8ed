#include "osc/transport/detail/TcpReadRequest.hpp"

#include <gtest/gtest.h>

#include <string>

namespace kavrin {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Progress = TcpReadRequest::Progress;

Bytes bytes(const std::string& text) {
    return {text.begin(), text.end()};
}

void arrive(InboundBuffer& inbound, const std::string& text) {
    std::uint8_t* space = inbound.prepare(text.size());
    std::copy(text.begin(), text.end(), space);
    inbound.commit(text.size());
}

TcpReadRequest delimited(const std::string& delimiter, std::size_t maxLength) {
    return {TcpReadRequest::Kind::delimiter, maxLength, bytes(delimiter), -1.0, 0};
}

// A read takes what belongs to it and leaves the rest, whatever the chunks the bytes come in.
TEST(TcpReadRequest, TakesItsBytesAndLeavesTheRest) {
    InboundBuffer inbound;
    std::size_t added = 0;
    TcpReadRequest exactly(TcpReadRequest::Kind::exactly, 4, {}, -1.0, 0);
    arrive(inbound, "ab");
    EXPECT_EQ(exactly.take(inbound, &added), Progress::needMore);
    EXPECT_EQ(added, 2u);
    arrive(inbound, "cdef");
    EXPECT_EQ(exactly.take(inbound, &added), Progress::done);
    EXPECT_EQ(exactly.buffer, bytes("abcd"));
    EXPECT_EQ(added, 2u);
    EXPECT_EQ(inbound.size(), 2u);  // "ef" waits for the next read

    TcpReadRequest available(TcpReadRequest::Kind::available, 1, {}, -1.0, 0);
    EXPECT_EQ(available.take(inbound, &added), Progress::done);
    EXPECT_EQ(available.buffer, bytes("e"));
    TcpReadRequest nothingYet(TcpReadRequest::Kind::available, 10, {}, -1.0, 0);
    EXPECT_EQ(nothingYet.take(inbound, &added), Progress::done);
    EXPECT_EQ(nothingYet.buffer, bytes("f"));
    TcpReadRequest empty(TcpReadRequest::Kind::available, 10, {}, -1.0, 0);
    EXPECT_EQ(empty.take(inbound, &added), Progress::needMore);
}

// Room for a receive moves what remains to the front or into larger storage, never losing or
// reordering a byte.
TEST(TcpReadRequest, InboundBufferKeepsWhatRemainsAcrossReceives) {
    InboundBuffer inbound;
    std::size_t added = 0;
    arrive(inbound, "0123456789");
    inbound.consume(7);
    arrive(inbound, "abcdefghij");  // the three left move to the front of larger storage
    inbound.consume(4);
    std::uint8_t* space = inbound.prepare(4);  // fits once compacted
    std::copy_n("WXYZ", 4, space);
    inbound.commit(2);
    TcpReadRequest all(TcpReadRequest::Kind::available, 100, {}, -1.0, 0);
    EXPECT_EQ(all.take(inbound, &added), Progress::done);
    EXPECT_EQ(all.buffer, bytes("bcdefghijWX"));
    EXPECT_TRUE(inbound.empty());
}

TEST(TcpReadRequest, FindsADelimiterSplitAcrossChunks) {
    InboundBuffer inbound;
    std::size_t added = 0;
    auto read = delimited("\r\n--\r\n", 100);
    for (const std::string chunk : {"one\r", "\n-", "-\r", "\n", "two"}) {
        arrive(inbound, chunk);
        const auto progress = read.take(inbound, &added);
        EXPECT_EQ(progress, std::string(chunk) == "\n" ? Progress::done : Progress::needMore)
            << chunk;
        if (progress == Progress::done) {
            break;
        }
    }
    EXPECT_EQ(read.buffer, bytes("one\r\n--\r\n"));
    EXPECT_EQ(inbound.size(), 0u);
    // A delimiter and more in one chunk: the read stops right after the delimiter.
    auto next = delimited("\n", 100);
    arrive(inbound, "a\nb\nc");
    EXPECT_EQ(next.take(inbound, &added), Progress::done);
    EXPECT_EQ(next.buffer, bytes("a\n"));
    EXPECT_EQ(added, 2u);
    EXPECT_EQ(inbound.size(), 3u);
}

}  // namespace
}  // namespace kavrin
