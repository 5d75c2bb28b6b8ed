#include "osc/transport/detail/TcpReadRequest.hpp"

namespace kavrin {
namespace {

void arrive(InboundBuffer& inbound, const std::string& text) {
    std::uint8_t* space = inbound.prepare(text.size());
    std::copy(text.begin(), text.end(), space);
    inbound.commit(text.size());
}

// Room for a receive moves what remains to the front or into larger storage, never losing or
// reordering a byte: what no reading through a connection can be made to show for certain.
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
    EXPECT_EQ(all.take(inbound, &added), TcpReadRequest::Progress::done);
    EXPECT_EQ(all.buffer,
              std::vector<std::uint8_t>({'b', 'c', 'd', 'e', 'f', 'g', 'h', 'i', 'j', 'W', 'X'}));
    EXPECT_TRUE(inbound.empty());
}

}  // namespace
}  // namespace kavrin
