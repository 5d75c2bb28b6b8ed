#include "app/LinkStatusText.hpp"

namespace kavrin {
namespace {

using namespace std::chrono;

TEST(LinkStatusTextTest, RoundTripsInTenthsBelowTenMillisecondsThenWhole) {
    const struct {
        microseconds time;
        const char* text;
    } cases[] = {
        {microseconds(0), "0.0 ms"},       {microseconds(449), "0.4 ms"},
        {microseconds(450), "0.5 ms"},     {microseconds(9'849), "9.8 ms"},
        {microseconds(9'950), "10 ms"},    {microseconds(12'499), "12 ms"},
        {microseconds(1'234'500), "1235 ms"},
    };
    for (const auto& c : cases) EXPECT_EQ(roundTripText(c.time), c.text) << c.time.count();
    EXPECT_EQ(roundTripLine(microseconds(3'000)), "round trip 3.0 ms");
    EXPECT_EQ(roundTripLine(std::nullopt), "round trip \u2013");
    EXPECT_EQ(roundTripLine(microseconds(2'345'000), true), "round trip 2345 ms, late");
}

TEST(LinkStatusTextTest, ReplyAgesCountUpInTenthsThenSecondsMinutesAndHours) {
    const struct {
        milliseconds age;
        const char* text;
    } cases[] = {
        {milliseconds(0), "last reply 0.0 s ago"},
        {milliseconds(499), "last reply 0.4 s ago"},
        {milliseconds(9'999), "last reply 9.9 s ago"},
        {seconds(10), "last reply 10 s ago"},
        {seconds(192), "last reply 3 min 12 s ago"},
        {minutes(125), "last reply 2 h 05 min ago"},
    };
    for (const auto& c : cases) EXPECT_EQ(replyAgeLine(c.age), c.text) << c.age.count();
    EXPECT_EQ(replyAgeLine(std::nullopt), "no reply yet");
}

TEST(LinkStatusTextTest, DropsAndDurations) {
    EXPECT_EQ(droppedLine(0), "0 datagrams dropped (not OSC or undecodable)");
    EXPECT_EQ(droppedLine(1), "1 datagram dropped (not OSC or undecodable)");
    EXPECT_EQ(droppedLine(2, 1), "2 datagrams, 1 packet dropped (not OSC or undecodable)");
    EXPECT_EQ(durationText(milliseconds(1'999)), "0:00:02");
    EXPECT_EQ(durationText(hours(12) + minutes(3) + seconds(55)), "12:03:55");
}

TEST(LinkStatusTextTest, TheConnectionSaysHowItEndedAndWhenItIsTriedAgain) {
    using State = LinkConnection::State;
    const auto now = steady_clock::now();
    const auto line = [&](State state, bool wasConnected, bool refused, std::optional<std::string> reason,
                          std::optional<LinkConnection::FramingHint> hint = std::nullopt) {
        return connectionLine({state, "tcp", "10.0.0.5", 3032, wasConnected, refused, std::move(reason),
                                now + milliseconds(550), std::move(hint)},
                               now);
    };
    const struct {
        QString line;
        const char* text;
    } cases[] = {
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
    for (const auto& c : cases) EXPECT_EQ(c.line, c.text);
}

}  // namespace
}  // namespace kavrin
