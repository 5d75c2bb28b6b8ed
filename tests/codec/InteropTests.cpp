// Our encoding against an independent OSC implementation, used strictly as a black box: the
// liblo command-line tools print what they receive (oscdump) and write what they would send
// (oscsend -). Skipped when the tools are not installed.
#include <unistd.h>

#include "osc/codec/OSCPacket.hpp"
#include "tests/UdpPeer.hpp"
#include "tests/transport/OpensslProcess.hpp"

namespace kavrin {
namespace {

using namespace std::chrono_literals;

bool toolInstalled(const char* name) {
    return access((std::string("/usr/bin/") + name).c_str(), X_OK) == 0;
}

const OSCMessage everyLibloKind("/kavrin/all", {1, std::int64_t{-5000000000}, 3.5f, 4.25,
                                                std::string("str"), OSCStringAltValue{"sym"},
                                                char32_t{'x'}, OSCMIDIValue{1, 0x90, 0x3c, 0x7f},
                                                true, false, OSCNullValue{}, OSCImpulseValue{}});

// Messages need no receiver: the sender below writes them byte for byte as we do.
TEST(Interop, AnIndependentReceiverReadsOurBundles) {
    if (!toolInstalled("oscdump")) GTEST_SKIP() << "oscdump (liblo-tools) is not installed";
    test::UdpPeer sender;
    const auto port = test::freeUdpPort();
    tcpTest::ChildProcess dump("/usr/bin/oscdump", {"-L", std::to_string(port)},
                               tcpTest::ChildProcess::Errors::separate);
    ASSERT_TRUE(dump.started());

    // Probe until the receiver is listening.
    const auto probe = OSCMessage("/kavrin/probe").rawData();
    bool listening = false;
    for (int i = 0; i < 100 && !listening; ++i) {
        sender.sendTo(port, probe);
        listening = dump.waitForOutput("/kavrin/probe", 100ms);
    }
    ASSERT_TRUE(listening) << "oscdump did not print a probe within 10 s";

    // A time tag in the past, so that the receiver delivers at once and prints the tag.
    const OSCTimeTag past{0, (std::uint64_t{3900000000} << 32) | 0x80000000};
    sender.sendTo(
        port, OSCBundle(past, {OSCMessage("/kavrin/in/bundle", {7}),
                               OSCBundle(past, {OSCMessage("/kavrin/nested", {std::string("b")})})})
                  .rawData());

    std::vector<std::string> lines;
    while (lines.size() < 2) {
        const auto line = dump.nextLine(10s);
        if (!line) break;
        if (line->find("/kavrin/probe") == std::string::npos) lines.push_back(*line);
    }
    EXPECT_EQ(lines, (std::vector<std::string>{"e8754700.80000000 /kavrin/in/bundle i 7",
                                               "e8754700.80000000 /kavrin/nested s \"b\""}))
        << dump.output();
}

TEST(Interop, WeDecodeWhatAnIndependentSenderWrites) {
    if (!toolInstalled("oscsend")) GTEST_SKIP() << "oscsend (liblo-tools) is not installed";
    // "-" as the destination writes the datagram to standard output.
    tcpTest::ChildProcess oscsend("/usr/bin/oscsend",
                               {"-", "/kavrin/all", "ihfdsScmTFNI", "1", "-5000000000", "3.5",
                                "4.25", "str", "sym", "x", "01903c7f"},
                               tcpTest::ChildProcess::Errors::separate);
    ASSERT_EQ(oscsend.waitForExit(10s), 0) << oscsend.errors();
    const std::vector<std::uint8_t> bytes(oscsend.output().begin(), oscsend.output().end());
    const auto decoded = OSCPacket::decode(bytes);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(std::get<OSCMessage>(decoded->base()), everyLibloKind);
    EXPECT_EQ(decoded->rawData(), bytes);  // and we would write the same bytes
}

}  // namespace
}  // namespace kavrin
