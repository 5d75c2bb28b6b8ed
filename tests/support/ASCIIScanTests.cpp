#include <algorithm>
#include <cstdint>
#include <random>
#include <string_view>

#include "support/ASCIIScan.hpp"

namespace kavrin {
namespace {

// The definitions the word scans must agree with, a byte at a time.
bool allBytes(std::string_view text, bool (*good)(unsigned char)) {
    return std::all_of(text.begin(), text.end(), [&](char c) { return good(c); });
}
bool referenceASCII(std::string_view text) {
    return allBytes(text, [](unsigned char b) { return b < 0x80; });
}
bool referencePrintable(std::string_view text) {
    return allBytes(text, [](unsigned char b) { return b >= 0x20 && b <= 0x7E; });
}
bool referenceWithoutCR(std::string_view text) {
    return allBytes(text, [](unsigned char b) { return b < 0x80 && b != '\r'; });
}
bool referenceZeroFree(std::string_view text) {
    return allBytes(text, [](unsigned char b) { return b != 0 && b < 0x80; });
}
ZeroByteScan referenceScan(const std::vector<std::uint8_t>& bytes) {
    ZeroByteScan result;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (bytes[i] == 0) return {static_cast<std::int64_t>(i), result.highBitBeforeZero};
        result.highBitBeforeZero |= bytes[i] >= 0x80;
    }
    return result;
}

void expectAgreement(const std::vector<std::uint8_t>& bytes) {
    // The vector holds exactly these bytes, so AddressSanitizer sees any read past them.
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    const auto scan = scanZeroByte(bytes.data(), static_cast<std::int64_t>(bytes.size()));
    const auto expected = referenceScan(bytes);
    const auto shown = ::testing::PrintToString(bytes);
    EXPECT_EQ(isASCII(text), referenceASCII(text)) << shown;
    EXPECT_EQ(isPrintableASCII(text), referencePrintable(text)) << shown;
    EXPECT_EQ(isASCIIWithoutCR(text), referenceWithoutCR(text)) << shown;
    EXPECT_EQ(hasZeroOrNonASCII(text), !referenceZeroFree(text)) << shown;
    EXPECT_EQ(scan.zero, expected.zero) << shown;
    EXPECT_EQ(scan.highBitBeforeZero, expected.highBitBeforeZero) << shown;
}

// The bytes at which a borrow or carry between bytes would show, and the bounds of each class.
constexpr std::uint8_t edgeBytes[] = {0x00, 0x01, 0x0C, 0x0D, 0x0E, 0x1F, 0x20, 0x21,
                                      0x40, 0x7E, 0x7F, 0x80, 0x81, 0xC3, 0xFF};

TEST(ASCIIScan, AgreesWithTheDefinitionsOnEveryOffenderAndOnMixedTexts) {
    // Lengths around the one-, half- and whole-word paths and the SSE2 block.
    for (std::size_t size = 1; size <= 40; ++size) {
        for (std::size_t at = 0; at < size; ++at) {
            for (const auto offender : edgeBytes) {
                std::vector<std::uint8_t> bytes(size, 'A');
                bytes[at] = offender;
                expectAgreement(bytes);
            }
        }
    }
    expectAgreement({});

    // Then texts mixing them, where one offender's borrow or carry could hide or fake another.
    std::mt19937 random(20240501);
    std::uniform_int_distribution<std::size_t> size(0, 48);
    std::uniform_int_distribution<std::size_t> pick(0, std::size(edgeBytes) - 1);
    // Mostly benign bytes, so that texts with no offender or one late offender are common.
    std::uniform_int_distribution<int> benign(0x20, 0x7E);
    std::bernoulli_distribution edge(0.08);
    for (int round = 0; round < 20000; ++round) {
        std::vector<std::uint8_t> bytes(size(random));
        for (auto& byte : bytes) {
            byte =
                edge(random) ? edgeBytes[pick(random)] : static_cast<std::uint8_t>(benign(random));
        }
        expectAgreement(bytes);
    }
}

}  // namespace
}  // namespace kavrin
