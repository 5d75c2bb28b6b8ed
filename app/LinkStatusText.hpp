#pragma once

#include <QString>
#include <chrono>
#include <cstdint>
#include <optional>

#include "app/LinkConnection.hpp"

namespace kavrin {

// The texts under the light. Plain functions: any thread.

// "0.4 ms" to "9.9 ms" in tenths below 10 ms, then whole milliseconds: "10 ms", "1234 ms".
QString roundTripText(std::chrono::microseconds time);
// "round trip 0.4 ms", or "round trip –" before the first one; "round trip 2345 ms, late" for a
// reply that came after the next ping.
QString roundTripLine(std::optional<std::chrono::microseconds> time, bool late = false);
// "last reply 0.4 s ago" in tenths below 10 s, "42 s", "3 min 12 s", "2 h 05 min" beyond;
// "no reply yet" before the first.
QString replyAgeLine(std::optional<std::chrono::steady_clock::duration> age);
// "0 datagrams dropped (not OSC or undecodable)", "1 datagram dropped (…)"; with a connection,
// "0 datagrams, 1 packet dropped (…)".
QString droppedLine(std::uint64_t datagrams, std::optional<std::uint64_t> packets = std::nullopt);
// "tcp 10.0.0.5:3032: connected, replies come over it", "… connecting…", "… refused, retrying in
// 0.4 s", "… closed by the console, retrying in 1.0 s", with the last reason while connecting
// again, and a second line suggesting the other framing when the console seems to use it.
// Empty without a connection; `now` counts the retry down.
QString connectionLine(const LinkConnection& connection, std::chrono::steady_clock::time_point now);
// "0:00:04", "12:03:55": hours, minutes, seconds, to the nearest second.
QString durationText(std::chrono::milliseconds duration);

}  // namespace kavrin
