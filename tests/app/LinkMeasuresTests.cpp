// The measures under the light: which ping a reply answers, and the lines that show it all.

#include <optional>
#include <tuple>

#include "app/LinkStatusText.hpp"
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

TEST(LinkStatusTextTest, EachLineUnderTheLight) {
    using State = LinkConnection::State;
    const auto now = steady_clock::now();
    const auto line = [&](State state, bool wasConnected, bool refused, std::optional<std::string> reason,
                          std::optional<LinkConnection::FramingHint> hint = std::nullopt) {
        return connectionLine({state, "tcp", "10.0.0.5", 3032, wasConnected, refused, std::move(reason),
                                now + milliseconds(550), std::move(hint)},
                               now);
    };
    const struct {
        QString text;
        const char* expected;
    } cases[] = {
        // Round trips in tenths below ten milliseconds, then whole.
        {roundTripText(microseconds(449)), "0.4 ms"},
        {roundTripText(microseconds(450)), "0.5 ms"},
        {roundTripText(microseconds(9'849)), "9.8 ms"},
        {roundTripText(microseconds(9'950)), "10 ms"},
        {roundTripText(microseconds(1'234'500)), "1235 ms"},
        {roundTripLine(microseconds(3'000)), "round trip 3.0 ms"},
        {roundTripLine(std::nullopt), "round trip \u2013"},
        {roundTripLine(microseconds(2'345'000), true), "round trip 2345 ms, late"},
        // Reply ages count up in tenths, then seconds, minutes and hours.
        {replyAgeLine(milliseconds(499)), "last reply 0.4 s ago"},
        {replyAgeLine(milliseconds(9'999)), "last reply 9.9 s ago"},
        {replyAgeLine(seconds(10)), "last reply 10 s ago"},
        {replyAgeLine(seconds(192)), "last reply 3 min 12 s ago"},
        {replyAgeLine(minutes(125)), "last reply 2 h 05 min ago"},
        {replyAgeLine(std::nullopt), "no reply yet"},
        {droppedLine(0), "0 datagrams dropped (not OSC or undecodable)"},
        {droppedLine(1), "1 datagram dropped (not OSC or undecodable)"},
        {droppedLine(2, 1), "2 datagrams, 1 packet dropped (not OSC or undecodable)"},
        {durationText(milliseconds(1'999)), "0:00:02"},
        {durationText(hours(12) + minutes(3) + seconds(55)), "12:03:55"},
        // The connection says how it ended and when it is tried again.
        {line(State::none, false, false, {}), ""},
        {line(State::connecting, false, false, {}), "tcp 10.0.0.5:3032: connecting\u2026"},
        {line(State::connected, false, false, {}), "tcp 10.0.0.5:3032: connected, replies come over it"},
        {line(State::waiting, false, true, "Connection refused"), "tcp 10.0.0.5:3032: refused, retrying in 0.6 s"},
        {line(State::waiting, false, false, "Attempt to connect to host timed out"),
         "tcp 10.0.0.5:3032: could not connect (Attempt to connect to host timed out), retrying in 0.6 s"},
        {line(State::waiting, true, false, {}), "tcp 10.0.0.5:3032: closed by the console, retrying in 0.6 s"},
        {line(State::connecting, true, false, "Read operation timed out", LinkConnection::FramingHint{"tcp", true}),
         "tcp 10.0.0.5:3032: connecting\u2026 (last: closed (Read operation timed out))\n"
         "The console's bytes look like tcp framing: set the link to tcp?"},
        {line(State::waiting, true, false, {}, LinkConnection::FramingHint{"slip", false}),
         "tcp 10.0.0.5:3032: closed by the console, retrying in 0.6 s\n"
         "The console hung up without answering: does it expect slip?"},
    };
    for (const auto& c : cases) EXPECT_EQ(c.text.toStdString(), c.expected);
}

}  // namespace
}  // namespace kavrin
