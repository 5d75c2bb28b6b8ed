#include <optional>
#include <tuple>

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
    // What a reply at `at` answers: round trip, late, and the ping's time in the history.
    using Answer = std::optional<std::tuple<microseconds, bool, LinkHistory::TimePoint>>;
    const auto answer = [&](std::optional<std::int32_t> number, milliseconds at) -> Answer {
        const auto found = times.answer(reply(number), start + at);
        if (!found) return std::nullopt;
        return std::tuple(found->roundTrip, found->late, found->keptAs);
    };
    EXPECT_EQ(answer(1, {}), std::nullopt) << "no ping yet";
    times.sent(std::nullopt, start, kept(0));
    times.sent(1, start + seconds(2), kept(2));
    times.sent(2, start + seconds(4), kept(4));

    const struct {
        std::optional<std::int32_t> number;
        milliseconds at;
        Answer answers;
    } cases[] = {
        {1, milliseconds(4500), std::tuple(milliseconds(2500), true, kept(2))},
        {1, milliseconds(4600), std::nullopt},  // answered already
        {7, milliseconds(4700), std::tuple(milliseconds(700), false, kept(4))},  // not a ping's: the last
        {2, milliseconds(4800), std::nullopt},
        {std::nullopt, milliseconds(4900), std::nullopt},
    };
    for (const auto& c : cases) EXPECT_EQ(answer(c.number, c.at), c.answers) << c.at.count();

    // Unnumbered, a reply after the next ping counts for that one.
    times.sent(std::nullopt, start + seconds(6), kept(6));
    times.sent(std::nullopt, start + seconds(8), kept(8));
    EXPECT_EQ(answer(std::nullopt, milliseconds(8100)), std::tuple(milliseconds(100), false, kept(8)));
    EXPECT_EQ(answer(std::nullopt, seconds(9)), std::nullopt);
}

}  // namespace
}  // namespace kavrin
