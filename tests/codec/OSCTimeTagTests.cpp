#include "osc/codec/OSCTimeTag.hpp"

#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace kavrin {
namespace {

using namespace std::chrono;

TEST(OSCTimeTag, FromSecondsSplitsErasAndFractions) {
    EXPECT_EQ(OSCTimeTag::fromSeconds(0), (OSCTimeTag{0, 0}));
    EXPECT_EQ(OSCTimeTag::fromSeconds(-5), (OSCTimeTag{0, 0}));
    EXPECT_EQ(OSCTimeTag::fromSeconds(1.5), (OSCTimeTag{0, 0x180000000ull}));
    EXPECT_EQ(OSCTimeTag::fromSeconds(4294967295.0), (OSCTimeTag{0, 0xFFFFFFFF00000000ull}));
    EXPECT_EQ(OSCTimeTag::fromSeconds(4294967296.0 * 3 + 0.5), (OSCTimeTag{3, 0x80000000ull}));
    EXPECT_EQ((OSCTimeTag{3, 0x80000000ull}).seconds(), 4294967296.0 * 3 + 0.5);
    EXPECT_TRUE(OSCTimeTag::immediate().isImmediate());
    EXPECT_FALSE((OSCTimeTag{1, 0}).isImmediate());
    EXPECT_DEATH(OSCTimeTag::fromSeconds(1e300), "too far ahead to count in eras");
}

TEST(OSCTimeTag, DatesCountFromTheLocalEpochBothWays) {
    const auto epoch = OSCTimeTag::epochDate();
    EXPECT_EQ(OSCTimeTag::fromDate(epoch), (OSCTimeTag{0, 0}));
    EXPECT_EQ(OSCTimeTag::fromDate(epoch + seconds(1)), (OSCTimeTag{0, 1ull << 32}));
    const auto date = system_clock::from_time_t(1'700'000'000) + milliseconds(250);
    const auto tag = OSCTimeTag::fromDate(date);
    EXPECT_LT(abs(duration_cast<microseconds>(tag.date() - date).count()), 2);
    EXPECT_EQ(tag.description(), "OSCTimeTag(era: 0, rawValue: " + std::to_string(tag.rawValue) +
                                     ", date: 2023-11-14 22:13:20.250 UTC)");

    // Eras beyond the clock's range clamp rather than overflow.
    EXPECT_EQ((OSCTimeTag{std::int64_t{1} << 40, 0}).date(), system_clock::time_point::max());
    EXPECT_EQ((OSCTimeTag{-(std::int64_t{1} << 40), 0}).date(), system_clock::time_point::min());

    const auto now = system_clock::now();
    EXPECT_TRUE(OSCTimeTag::fromDate(now + hours(1)).isFuture());
    EXPECT_FALSE(OSCTimeTag::fromDate(now - hours(1)).isFuture());
    const auto current = OSCTimeTag::now();
    EXPECT_LT(std::abs(current.seconds() - OSCTimeTag::fromDate(system_clock::now()).seconds()),
              1.0);
}

// The epoch is midnight of 1900 in the local time zone, as the description says where that is
// not UTC.
TEST(OSCTimeTagDeathTest, ADescriptionNamesALocalEpochThatIsNotUTC) {
    // The epoch is cached at first use, so each zone is tried in a fresh process.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // 2026-01-01 00:00:00.5 as a sender using the UTC epoch means it.
    const OSCTimeTag tag{0, (std::uint64_t{1767225600} + 2208988800) << 32 | 0x80000000u};
    const auto describedIn = [&](const char* zone, const std::string& expected) {
        setenv("TZ", zone, 1);
        tzset();
        const std::string text = tag.description();
        std::fprintf(stderr, "%s\n", text.c_str());
        std::exit(text == "OSCTimeTag(era: 0, rawValue: " + std::to_string(tag.rawValue) +
                               ", date: " + expected + ")"
                      ? 0
                      : 1);
    };
    EXPECT_EXIT(describedIn("UTC0", "2026-01-01 00:00:00.500 UTC"), testing::ExitedWithCode(0),
                "");
    EXPECT_EXIT(describedIn("EST5", "2026-01-01 05:00:00.500 UTC (epoch 1900 local, UTC\u221205:00)"),
                testing::ExitedWithCode(0), "");
    EXPECT_EXIT(describedIn("IST-5:30", "2025-12-31 18:30:00.500 UTC (epoch 1900 local, UTC+05:30)"),
                testing::ExitedWithCode(0), "");
    // With NTP's own epoch the zone no longer matters.
    EXPECT_EXIT(
        {
            OSCTimeTag::setEpoch(OSCTimeTag::Epoch::utc);
            describedIn("EST5", "2026-01-01 00:00:00.500 UTC");
        },
        testing::ExitedWithCode(0), "");
}

TEST(OSCTimeTag, TheUTCEpochIsNTPsWhateverTheZone) {
    OSCTimeTag::setEpoch(OSCTimeTag::Epoch::utc);
    const auto utc1900 = system_clock::from_time_t(-2208988800);
    EXPECT_EQ(OSCTimeTag::epochDate(), utc1900);
    const auto date = system_clock::from_time_t(1'767'225'600) + milliseconds(500);
    const auto tag = OSCTimeTag::fromDate(date);
    // Seconds pass through a double: equal to well within a microsecond.
    EXPECT_EQ(tag.rawValue >> 32, std::uint64_t{1767225600} + 2208988800);
    EXPECT_LT(abs(duration_cast<microseconds>(tag.date() - date).count()), 1);
    OSCTimeTag::setEpoch(OSCTimeTag::Epoch::local);
    EXPECT_EQ(OSCTimeTag::epochDate(), OSCTimeTag::localEpochDate());
}

}  // namespace
}  // namespace kavrin
