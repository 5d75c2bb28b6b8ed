#include "support/StderrLogSink.hpp"

#include <cerrno>
#include <ctime>
#include <iterator>

#include <fmt/format.h>

namespace kavrin {

void StderrLogSink::write(const LogRecord& record) {
    using namespace std::chrono;
    const auto sinceEpoch = duration_cast<milliseconds>(record.time.time_since_epoch());
    const auto seconds =
        static_cast<std::time_t>(duration_cast<std::chrono::seconds>(sinceEpoch).count());
    const auto millisecond = sinceEpoch.count() % 1000;

    fmt::memory_buffer line;
    auto out = std::back_inserter(line);
    std::tm local{};
    if (localtime_r(&seconds, &local) != nullptr) {
        fmt::format_to(out, "{:04}-{:02}-{:02} {:02}:{:02}:{:02}.{:03}", local.tm_year + 1900,
                       local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                       millisecond);
    } else {
        // No calendar date for this time: the seconds since the epoch instead.
        fmt::format_to(out, "@{}.{:03}", seconds, millisecond);
    }
    fmt::format_to(out, " {} {}: {}\n", logLevelName(record.level), record.category,
                   record.message);

    // A line that cannot be written is dropped: there is nowhere left to report it.
    const char* at = line.data();
    std::size_t left = line.size();
    while (left > 0) {
        const ssize_t written = ::write(descriptor_, at, left);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return;
        at += written;
        left -= static_cast<std::size_t>(written);
    }
}

}  // namespace kavrin
