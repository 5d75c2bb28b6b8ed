#include <cstdint>
#include <limits>
#include <utility>

#include "support/Clamped.hpp"
#include "support/Validated.hpp"

namespace kavrin {
namespace {

constexpr double nan = std::numeric_limits<double>::quiet_NaN();
constexpr double infinity = std::numeric_limits<double>::infinity();

// A call that throws an InvalidValueError with exactly `text`.
auto refuses(const char* text) {
    return ::testing::ThrowsMessage<InvalidValueError>(::testing::StrEq(text));
}

TEST(Clamped, KeepsValuesWithinItsBoundsAndRefusesNaNAndReversedBounds) {
    Clamped<double> level(1.5, 0.0, 1.0);
    EXPECT_EQ(level.value(), 1.0);
    for (const auto& [given, kept] :
         {std::pair{-0.25, 0.0}, {0.5, 0.5}, {infinity, 1.0}, {-infinity, 0.0}}) {
        level = given;
        EXPECT_EQ(level.value(), kept) << given;
    }

    // Unsigned and narrow types at their limits; a one-point range.
    Clamped<std::uint8_t> byte(255, 10, 200);
    EXPECT_EQ(byte.value(), 200);
    byte = 0;
    EXPECT_EQ(byte.value(), 10);
    Clamped<std::int64_t> fixed(std::numeric_limits<std::int64_t>::min(), 7, 7);
    EXPECT_EQ(fixed.value(), 7);

    using std::chrono::milliseconds;
    Clamped<milliseconds> interval(milliseconds(5), milliseconds(100), milliseconds(10'000));
    EXPECT_EQ(interval.value(), milliseconds(100));

    // NaN and reversed bounds are refused; the old value stays.
    level = 0.5;
    EXPECT_THAT([&] { level = nan; }, refuses("NaN cannot be clamped"));
    EXPECT_EQ(level.value(), 0.5);
    EXPECT_THROW(Clamped<double>(nan, 0.0, 1.0), InvalidValueError);
    EXPECT_THROW(Clamped<double>(0.0, nan, 1.0), InvalidValueError);
    EXPECT_THROW(Clamped<double>(0.0, 0.0, nan), InvalidValueError);
    EXPECT_THAT([] { Clamped<int>(0, 5, 1); },
              refuses("Clamped bounds out of order: low 5 is above high 1"));
}

TEST(Validated, RefusesWhatThePredicateRefusesAndKeepsTheOldValue) {
    const auto isPort = [](const std::int64_t& port) { return port >= 1 && port <= 65535; };
    Validated<std::int64_t> port(8000, isPort, "a port from 1 to 65535");
    port = 8001;
    EXPECT_EQ(port.value(), 8001);
    EXPECT_THAT([&] { port = 70000; },
              refuses("Invalid value 70000: expected a port from 1 to 65535"));
    EXPECT_EQ(port.value(), 8001);
    EXPECT_FALSE(port.accepts(0));
    EXPECT_TRUE(port.accepts(65535));
    EXPECT_THROW(Validated<std::int64_t>(0, isPort, "a port"), InvalidValueError);

    // Values {fmt} cannot write are left out of the text.
    struct Opaque {
        bool good;
    };
    const auto good = [](const Opaque& o) { return o.good; };
    EXPECT_THAT([&] { Validated<Opaque>({false}, good, "a good one"); },
              refuses("Invalid value: expected a good one"));
}

}  // namespace
}  // namespace kavrin
