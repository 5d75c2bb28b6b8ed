#include "app/PingTimes.hpp"

#include <algorithm>

#include "osc/codec/OSCMessage.hpp"

namespace kavrin {

void PingTimes::sent(std::optional<std::int32_t> number, Clock::time_point at,
                     LinkHistory::TimePoint keptAs) {
    pings_.push_back({number, at, keptAs});
    if (pings_.size() > remembered) pings_.pop_front();
}

std::optional<PingTimes::Answer> PingTimes::answer(const OSCMessage& reply, Clock::time_point at) {
    if (pings_.empty()) return std::nullopt;
    auto answered = std::prev(pings_.end());
    const auto* number = reply.values.empty() ? nullptr : std::get_if<std::int32_t>(&reply.values[0].base());
    if (number) {
        // A console that does not echo the number still answers the last ping.
        const auto own = std::find_if(pings_.begin(), pings_.end(),
                                      [&](const Ping& ping) { return ping.number == *number; });
        if (own != pings_.end()) answered = own;
    }
    if (answered->answered) return std::nullopt;
    answered->answered = true;
    return Answer{std::chrono::duration_cast<std::chrono::microseconds>(at - answered->at),
                  answered != std::prev(pings_.end()), answered->keptAs};
}

}  // namespace kavrin
