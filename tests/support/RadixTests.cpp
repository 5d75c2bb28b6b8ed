#include <cstdint>
#include <limits>

#include "support/HexDump.hpp"
#include "support/RadixParse.hpp"

namespace kavrin {
namespace {

// This target is built in GNU mode, where the 128-bit integers are integral: the templates
// take them, so they must write and read them whole.
__extension__ typedef unsigned __int128 UInt128;
__extension__ typedef __int128 Int128;
static_assert(RadixInteger<UInt128> && RadixInteger<Int128>);

TEST(RadixFormat, WritesEveryWidthWithNegativesInTwosComplement) {
    EXPECT_EQ(formatHex(std::int8_t{-1}), "0xff");
    EXPECT_EQ(formatHex(std::int8_t{-128}), "0x80");
    EXPECT_EQ(formatHex(std::int16_t{-2}), "0xfffe");
    EXPECT_EQ(formatHex(-1), "0xffffffff");
    EXPECT_EQ(formatHex(std::numeric_limits<std::int64_t>::min()), "0x8000000000000000");
    EXPECT_EQ(formatHex(std::numeric_limits<std::uint64_t>::max()), "0xffffffffffffffff");
    EXPECT_EQ(formatHex(std::uint8_t{0}), "0x0");
    EXPECT_EQ(formatBinary(std::int8_t{-3}), "0b11111101");
    EXPECT_EQ(formatBinary(std::uint16_t{5}), "0b101");
    EXPECT_EQ(formatBinary(std::int64_t{-1}), "0b" + std::string(64, '1'));
    EXPECT_EQ(formatHex(UInt128{1} << 100), "0x1" + std::string(25, '0'));
    EXPECT_EQ(formatHex(UInt128{0xab} << 64 | 0xc), "0xab000000000000000c");
    EXPECT_EQ(formatHex(Int128{-1}), "0x" + std::string(32, 'f'));
    EXPECT_EQ(formatBinary(UInt128{5} << 64, {.group = 64}), "0b101_" + std::string(64, '0'));
}

TEST(RadixFormat, PadsGroupsAndCasesAsAsked) {
    struct Case {
        std::uint32_t value;
        RadixFormat format;
        const char* hex;
    };
    const std::vector<Case> cases = {
        {0x2a, {.minimumDigits = 8}, "0x0000002a"},
        {0x2a, {.minimumDigits = 8, .group = 4}, "0x0000_002a"},
        // Groups count from the right; a short first group stays short.
        {0xabcde, {.group = 4}, "0xa_bcde"},
        {0xabcde, {.prefix = false, .letters = LetterCase::upper}, "ABCDE"},
        {0xabcde, {.letters = LetterCase::upper, .group = 2, .separator = ' '}, "0xA BC DE"},
        // The minimum never cuts digits.
        {0x12345, {.minimumDigits = 2}, "0x12345"},
        {0, {.minimumDigits = 0, .prefix = false}, "0"},
    };
    for (const auto& c : cases) EXPECT_EQ(formatHex(c.value, c.format), c.hex);
    EXPECT_EQ(formatBinary(std::uint8_t{0xA5}, {.group = 4}), "0b1010_0101");
    EXPECT_EQ(formatBinary(std::uint8_t{1}, {.minimumDigits = 4, .prefix = false}), "0001");
}

template <class... Ts>
void expectRoundTrips() {
    const auto each = []<class T>(T) {
        for (const T value : {std::numeric_limits<T>::min(), std::numeric_limits<T>::max(), T{0},
                              T{1}, static_cast<T>(std::numeric_limits<T>::max() / 3)}) {
            EXPECT_EQ(parseHex<T>(formatHex(value)), value);
            EXPECT_EQ(parseBinary<T>(formatBinary(value, {.group = 4})), value);
            EXPECT_EQ(
                parseHex<T>(formatHex(value, {.prefix = false, .letters = LetterCase::upper})),
                value);
        }
    };
    (each(Ts{}), ...);
}

TEST(RadixParse, ReadsBackWhatFormatWritesForEveryWidth) {
    expectRoundTrips<std::int8_t, std::uint8_t, std::int16_t, std::uint16_t, std::int32_t,
                     std::uint32_t, std::int64_t, std::uint64_t, Int128, UInt128>();
}

TEST(RadixParse, ReadsSignsAsMagnitudesAndDigitsAsBits) {
    EXPECT_EQ(parseHex<std::int8_t>("-0x80"), -128);
    EXPECT_EQ(parseHex<std::int8_t>("-7f"), -127);
    EXPECT_EQ(parseHex<std::int8_t>("0x80"), -128);
    EXPECT_EQ(parseHex<std::int8_t>("-0"), 0);
    EXPECT_EQ(parseHex<std::int64_t>("-0x8000000000000000"),
              std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(parseHex<std::uint16_t>("0XBeeF"), 0xBEEF);
    EXPECT_EQ(parseHex<std::uint32_t>("000000000000000000ff"), 0xFFu);  // zeros are no overflow
    EXPECT_EQ(parseBinary<std::uint8_t>("0B1'0'1", '\''), 5);
    EXPECT_TRUE(parseHex<UInt128>("0x10000000000000000000000000") == UInt128{1} << 100);
    EXPECT_TRUE(parseHex<Int128>("-0x8" + std::string(31, '0')) == Int128{1} << 127);
    EXPECT_TRUE(parseHex<Int128>("-1_0000_0000_0000_0001") == -(Int128{1} << 64 | 1));
}

TEST(RadixParse, ErrorsSayWhereAndWhy) {
    using R = RadixParseError::Reason;
    using Parse = void (*)(const std::string&);
    const Parse hex8 = [](const std::string& text) { parseHex<std::int8_t>(text); };
    const Parse binary8 = [](const std::string& text) { parseBinary<std::int8_t>(text); };
    const Parse hexU64 = [](const std::string& text) { parseHex<std::uint64_t>(text); };
    const Parse hex128 = [](const std::string& text) { parseHex<Int128>(text); };
    const Parse binaryU128 = [](const std::string& text) { parseBinary<UInt128>(text); };
    struct Case {
        Parse parse;
        std::string text;
        R reason;
        const char* message;
    };
    const std::vector<Case> cases = {
        {hex8, "", R::empty, "Empty text at position 0"},
        {hex8, "0x", R::noDigits, "No digits at position 2"},
        {hex8, "-", R::noDigits, "No digits at position 1"},
        {hex8, "0xfg", R::badDigit, "Bad hexadecimal digit 'g' at position 3"},
        {binary8, "12", R::badDigit, "Bad binary digit '2' at position 1"},
        {hex8, "+1", R::badDigit, "Bad hexadecimal digit '+' at position 0"},
        {hex8, " 1", R::badDigit, "Bad hexadecimal digit ' ' at position 0"},
        {hex8, "1\xC3\xA9", R::badDigit, "Bad hexadecimal digit 0xC3 at position 1"},
        {hex8, "0x_1", R::misplacedSeparator, "Misplaced separator '_' at position 2"},
        {hex8, "1__0", R::misplacedSeparator, "Misplaced separator '_' at position 1"},
        {hex8, "10_", R::misplacedSeparator, "Misplaced separator '_' at position 2"},
        {hexU64, "-1", R::negativeUnsigned, "Negative value for uint64_t at position 0"},
        // Out of range names the first digit too many.
        {hex8, "0x1ff", R::outOfRange, "Value out of range for int8_t at position 4"},
        {hex8, "-0x81", R::outOfRange, "Value out of range for int8_t at position 4"},
        {binary8, "111111111", R::outOfRange, "Value out of range for int8_t at position 8"},
        {hexU64, "1" + std::string(16, '0'), R::outOfRange,
         "Value out of range for uint64_t at position 16"},
        {hex128, "-0x8" + std::string(31, '0') + "1", R::outOfRange,
         "Value out of range for int128_t at position 35"},
        {binaryU128, "1" + std::string(128, '0'), R::outOfRange,
         "Value out of range for uint128_t at position 128"},
    };
    for (const auto& c : cases) {
        const auto parse = [&] { c.parse(c.text); };
        EXPECT_THAT(parse, ::testing::ThrowsMessage<RadixParseError>(::testing::StrEq(c.message)));
        EXPECT_THAT(parse, ::testing::Throws<RadixParseError>(
                               ::testing::Property(&RadixParseError::reason, c.reason)))
            << c.message;
    }
}

TEST(HexDump, PrintsLinesAsXxdDoes) {
    std::string bytes = "Hello, world!\n";
    bytes += std::string("\0\x01\x7F\x80\xFF", 5) + "abc";
    EXPECT_EQ(hexDump(bytes),
              "00000000: 4865 6c6c 6f2c 2077 6f72 6c64 210a 0001  Hello, world!...\n"
              "00000010: 7f80 ff61 6263                           ...abc\n");
    EXPECT_EQ(hexDump(std::string_view("A")),
              "00000000: 41                                       A\n");
    EXPECT_EQ(hexDump(std::string_view()), "");
    const std::vector<std::uint8_t> sixteen(16, 0x20);
    EXPECT_EQ(hexDump(sixteen, 0x1'0000'0000),
              "100000000: 2020 2020 2020 2020 2020 2020 2020 2020                  \n");
}

}  // namespace
}  // namespace kavrin
