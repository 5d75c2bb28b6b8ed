#include "osc/codec/OSCTimeTag.hpp"

#include <atomic>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <functional>

#include "support/FatalError.hpp"
#include "support/HashCombine.hpp"

namespace kavrin {

namespace {

constexpr double secondsPerEra = 4294967296.0;  // 2^32
constexpr double fractionPerSecond = 4294967296.0;

}  // namespace

OSCTimeTag OSCTimeTag::immediate() {
    return OSCTimeTag{0, 1};
}

OSCTimeTag OSCTimeTag::fromSeconds(double seconds) {
    if (!(seconds > 0)) return OSCTimeTag{0, 0};
    if (seconds <= 4294967295.0) {
        return OSCTimeTag{0, static_cast<std::uint64_t>(seconds * fractionPerSecond)};
    }
    const double era = std::trunc(seconds / secondsPerEra);
    // A time this far out is a programming error, not data: stop rather than wrap.
    if (!(era < 9223372036854775807.0)) {
        fatalError("OSCTimeTag::fromSeconds: a time too far ahead to count in eras");
    }
    // Both steps are exact in binary floating point, so the product stays below 2^64.
    const double within = seconds - era * secondsPerEra;
    return OSCTimeTag{static_cast<std::int64_t>(era),
                      static_cast<std::uint64_t>(within * fractionPerSecond)};
}

std::chrono::system_clock::time_point OSCTimeTag::localEpochDate() {
    std::tm start{};
    start.tm_year = 0;  // 1900
    start.tm_mon = 0;
    start.tm_mday = 1;
    start.tm_isdst = -1;
    // Negative (before 1970), which a 64-bit time_t holds fine.
    const std::time_t epoch = std::mktime(&start);
    return std::chrono::system_clock::from_time_t(epoch);
}

namespace {

std::atomic<OSCTimeTag::Epoch> chosenEpoch{OSCTimeTag::Epoch::local};

const auto utcEpoch = std::chrono::system_clock::from_time_t(-2208988800);  // 1900-01-01 UTC

}  // namespace

void OSCTimeTag::setEpoch(Epoch epoch) {
    chosenEpoch.store(epoch);
}

OSCTimeTag::Epoch OSCTimeTag::epoch() {
    return chosenEpoch.load();
}

std::chrono::system_clock::time_point OSCTimeTag::epochDate() {
    if (epoch() == Epoch::utc) return utcEpoch;
    static const auto local = localEpochDate();
    return local;
}

OSCTimeTag OSCTimeTag::fromDate(std::chrono::system_clock::time_point date) {
    const std::chrono::duration<double> since = date - epochDate();
    return fromSeconds(since.count());
}

OSCTimeTag OSCTimeTag::now() {
    return fromDate(std::chrono::system_clock::now());
}

bool OSCTimeTag::isFuture() const {
    return *this > now();
}

double OSCTimeTag::seconds() const {
    return static_cast<double>(era) * secondsPerEra +
           static_cast<double>(rawValue) / fractionPerSecond;
}

std::chrono::system_clock::time_point OSCTimeTag::date() const {
    using namespace std::chrono;
    using Clock = system_clock;
    // Far eras lie outside what the clock can hold: clamp instead of overflowing.
    const double fromClockZero =
        seconds() + duration<double>(epochDate().time_since_epoch()).count();
    if (fromClockZero >= duration<double>(Clock::duration::max()).count()) {
        return Clock::time_point::max();
    }
    if (fromClockZero <= duration<double>(Clock::duration::min()).count()) {
        return Clock::time_point::min();
    }
    return Clock::time_point(duration_cast<Clock::duration>(duration<double>(fromClockZero)));
}

namespace {

// Says which epoch a printed date was read with, when that is not plain UTC: a tag a sender
// meant as UTC then prints shifted by the zone's offset, and the note tells the reader why.
std::string epochNote() {
    if (OSCTimeTag::epoch() == OSCTimeTag::Epoch::utc) return {};
    static const std::string note = [] {
        using namespace std::chrono;
        const auto offset = duration_cast<seconds>(utcEpoch - OSCTimeTag::epochDate()).count();
        if (offset == 0) return std::string();
        const long long magnitude = offset < 0 ? -offset : offset;
        char buffer[16];
        if (magnitude % 60 == 0) {
            std::snprintf(buffer, sizeof buffer, "%02lld:%02lld", magnitude / 3600,
                          magnitude / 60 % 60);
        } else {
            std::snprintf(buffer, sizeof buffer, "%02lld:%02lld:%02lld", magnitude / 3600,
                          magnitude / 60 % 60, magnitude % 60);
        }
        return std::string(" (epoch 1900 local, UTC") + (offset < 0 ? "\u2212" : "+") + buffer +
               ")";
    }();
    return note;
}

}  // namespace

std::string OSCTimeTag::description() const {
    std::string text =
        "OSCTimeTag(era: " + std::to_string(era) + ", rawValue: " + std::to_string(rawValue);
    if (isImmediate()) return text + ", immediate)";
    using namespace std::chrono;
    const auto when = round<milliseconds>(date());
    auto secondsPart = floor<std::chrono::seconds>(when);
    const auto millis = (when - secondsPart).count();
    const std::time_t whole = system_clock::to_time_t(secondsPart);
    std::tm utc{};
    char buffer[64] = "?";
    if (gmtime_r(&whole, &utc) != nullptr) {
        std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02d %02d:%02d:%02d.%03d UTC",
                      utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min,
                      utc.tm_sec, static_cast<int>(millis));
    }
    return text + ", date: " + buffer + epochNote() + ")";
}

}  // namespace kavrin

std::size_t std::hash<kavrin::OSCTimeTag>::operator()(
    const kavrin::OSCTimeTag& tag) const noexcept {
    std::size_t seed = std::hash<std::int64_t>{}(tag.era);
    kavrin::hashCombine(seed, std::hash<std::uint64_t>{}(tag.rawValue));
    return seed;
}
