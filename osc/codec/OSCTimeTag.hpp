#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

namespace kavrin {

// An NTP-format time: `era` counts whole 2^32-second eras since 1 January 1900 and `rawValue`
// is the time within the era (upper 32 bits seconds, lower 32 bits fraction). Only rawValue goes
// on the wire, so a decoded tag is always in era 0. By default the 1900 epoch is midnight in the
// machine's LOCAL time zone, built once on first use; it deliberately shifts with the zone
// (see Epoch for the choice of UTC). A plain value, usable from any thread.
struct OSCTimeTag {
    std::int64_t era = 0;
    std::uint64_t rawValue = 0;

    // The OSC 1.0 "at once" tag: era 0, raw value 1.
    static OSCTimeTag immediate();
    // Not above zero (or NaN) gives era 0, raw value 0; an era beyond 64 bits stops the process.
    static OSCTimeTag fromSeconds(double secondsSince1900);
    static OSCTimeTag fromDate(std::chrono::system_clock::time_point date);
    static OSCTimeTag now();

    // Where tags count from when they are turned into dates and back (fromDate, now, date,
    // isFuture, and so an OSCServer's osc1_0 scheduling).
    //  - local (the default): 1 January 1900 at midnight in the machine's time zone, as of first
    //    use. Tags from a sender that counts from UTC, as NTP and most OSC senders do, then
    //    stand for an instant shifted by the zone's offset.
    //  - utc: 1 January 1900 at midnight UTC, NTP's own epoch. Choose it when your senders
    //    follow NTP, so that a bundle tagged for a moment is delivered at that moment wherever
    //    this machine is; set it once, before time tags are converted.
    enum class Epoch { local, utc };
    static void setEpoch(Epoch epoch);
    static Epoch epoch();

    // The date the chosen epoch stands for; the local one is cached for the life of the process.
    static std::chrono::system_clock::time_point epochDate();
    // The local epoch computed afresh from the current time zone (TZ), not cached.
    static std::chrono::system_clock::time_point localEpochDate();

    bool isImmediate() const { return rawValue == 1; }
    // Later than now().
    bool isFuture() const;
    double seconds() const;
    std::chrono::system_clock::time_point date() const;
    // "OSCTimeTag(era: 0, rawValue: 1, immediate)" or, for any other tag,
    // "OSCTimeTag(era: 0, rawValue: N, date: 2026-11-22 18:47:36.250 UTC)": the instant the tag
    // stands for under the local epoch. Where that epoch is not UTC's, the text names it,
    // "... 05:00:00.500 UTC (epoch 1900 local, UTC−05:00))", so a reader sees why a tag a
    // sender meant as UTC prints shifted.
    std::string description() const;

    friend bool operator==(const OSCTimeTag&, const OSCTimeTag&) = default;
    friend auto operator<=>(const OSCTimeTag&, const OSCTimeTag&) = default;
};

}  // namespace kavrin

template <>
struct std::hash<kavrin::OSCTimeTag> {
    std::size_t operator()(const kavrin::OSCTimeTag& tag) const noexcept;
};
