#pragma once

#include <QString>
#include <chrono>
#include <cstdint>
#include <optional>

namespace kavrin {

// The texts under the light. Plain functions: any thread.

// "0.4 ms" to "9.9 ms" in tenths below 10 ms, then whole milliseconds: "10 ms", "1234 ms".
QString roundTripText(std::chrono::microseconds time);
// "round trip 0.4 ms", or "round trip –" before the first one.
QString roundTripLine(std::optional<std::chrono::microseconds> time);
// "last reply 0.4 s ago" in tenths below 10 s, "42 s", "3 min 12 s", "2 h 05 min" beyond;
// "no reply yet" before the first.
QString replyAgeLine(std::optional<std::chrono::steady_clock::duration> age);
// "0 datagrams dropped (not OSC or undecodable)", "1 datagram dropped (…)".
QString droppedLine(std::uint64_t count);
// "0:00:04", "12:03:55": hours, minutes, seconds, to the nearest second.
QString durationText(std::chrono::milliseconds duration);

}  // namespace kavrin
