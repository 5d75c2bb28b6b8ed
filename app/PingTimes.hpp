#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>

#include "app/LinkHistory.hpp"

namespace kavrin {

struct OSCMessage;

// Which ping a matching reply answers, and so its round trip. A reply answers the last ping, once,
// unless its first value is the Int32 number of a numbered ping: then it answers that ping, once,
// and is late when a later ping has gone out since. So without numbers a reply that comes after
// the next ping counts for that one, while with them it is matched to its own. Pings are
// remembered for an hour of ticks. Plain logic: use from one thread.
class PingTimes {
  public:
    using Clock = std::chrono::steady_clock;

    struct Answer {
        std::chrono::microseconds roundTrip;
        bool late;
        LinkHistory::TimePoint keptAs;  // the ping's name in the link history
    };

    // A ping that went out at `at`, carrying `number` if it is numbered.
    void sent(std::optional<std::int32_t> number, Clock::time_point at, LinkHistory::TimePoint keptAs);
    // The ping a matching `reply` received at `at` answers, if one is still unanswered.
    std::optional<Answer> answer(const OSCMessage& reply, Clock::time_point at);

  private:
    struct Ping {
        std::optional<std::int32_t> number;
        Clock::time_point at;
        LinkHistory::TimePoint keptAs;
        bool answered = false;
    };
    static constexpr std::size_t remembered = 1800;
    std::deque<Ping> pings_;  // oldest first; the last is the last sent
};

}  // namespace kavrin
