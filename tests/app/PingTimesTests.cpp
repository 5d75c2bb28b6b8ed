#include <gtest/gtest.h>

#include <chrono>
#include <optional>

#include "app/PingTimes.hpp"
#include "osc/codec/OSCMessage.hpp"

namespace kavrin {
namespace {

using namespace std::chrono;

TEST(PingTimesTest, AReplyAnswersItsOwnNumberedPingOrElseTheLastOneOnce) {
    PingTimes times;
    const PingTimes::Clock::time_point start;
    const auto kept = [](int second) { return LinkHistory::TimePoint(seconds(second)); };
    const auto reply = [](std::optional<std::int32_t> number) {
        return number ? OSCMessage("/eos/out/ping", {OSCValue(*number)}) : OSCMessage("/eos/out/ping");
    };
    EXPECT_FALSE(times.answer(reply(1), start).has_value()) << "no ping yet";
    times.sent(std::nullopt, start, kept(0));
    times.sent(1, start + seconds(2), kept(2));
    times.sent(2, start + seconds(4), kept(4));

    const struct {
        std::optional<std::int32_t> number;
        milliseconds at;
        std::optional<std::tuple<milliseconds, bool, int>> answers;  // round trip, late, kept at
    } cases[] = {
        {1, milliseconds(4500), std::tuple(milliseconds(2500), true, 2)},
        {1, milliseconds(4600), std::nullopt},  // answered already
        {7, milliseconds(4700), std::tuple(milliseconds(700), false, 4)},  // not a ping's: the last
        {2, milliseconds(4800), std::nullopt},
        {std::nullopt, milliseconds(4900), std::nullopt},
    };
    for (const auto& c : cases) {
        const auto answer = times.answer(reply(c.number), start + c.at);
        ASSERT_EQ(answer.has_value(), c.answers.has_value()) << c.at.count();
        if (!answer) continue;
        EXPECT_EQ(answer->roundTrip, std::get<0>(*c.answers)) << c.at.count();
        EXPECT_EQ(answer->late, std::get<1>(*c.answers)) << c.at.count();
        EXPECT_EQ(answer->keptAs, kept(std::get<2>(*c.answers))) << c.at.count();
    }

    // Unnumbered, a reply after the next ping counts for that one.
    times.sent(std::nullopt, start + seconds(6), kept(6));
    times.sent(std::nullopt, start + seconds(8), kept(8));
    const auto answer = times.answer(reply(std::nullopt), start + milliseconds(8100));
    ASSERT_TRUE(answer.has_value());
    EXPECT_EQ(answer->roundTrip, milliseconds(100));
    EXPECT_FALSE(answer->late);
    EXPECT_FALSE(times.answer(reply(std::nullopt), start + seconds(9)).has_value());
}

}  // namespace
}  // namespace kavrin
