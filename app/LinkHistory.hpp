#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace kavrin {

class DispatchQueue;
class SerialQueue;

// A time the link was down: from a change of the light to red until the next change to green.
struct Outage {
    using TimePoint = std::chrono::system_clock::time_point;
    // How it ended; `ongoing` while the light is still red.
    enum class End { ongoing, recovered, quit, crash };
    // The word stored for `end` (an ongoing outage stores none) and shown for it.
    static const char* endName(End end);

    TimePoint started;
    std::optional<TimePoint> ended;
    End end = End::ongoing;
    // The round trips of the healthy time before it in the same run of the monitor; none when it
    // began at the first paint or no reply was timed.
    std::optional<std::chrono::microseconds> medianRoundTrip;
    std::optional<std::chrono::microseconds> worstRoundTrip;
};

// The pings of a span of the history, for a plot: the span cut into equal buckets, each with
// its pings (none for a bucket without any), and the outages that overlap the span.
struct PingPlot {
    using TimePoint = Outage::TimePoint;
    struct Bucket {
        TimePoint firstSent;  // of its earliest ping
        int pings = 0;
        int lost = 0;  // unanswered, not counting the latest ping stored, still awaited
        std::optional<std::chrono::microseconds> worstRoundTrip;
    };
    TimePoint from;
    TimePoint to;
    std::vector<Bucket> buckets;  // in time order
    std::vector<std::pair<TimePoint, TimePoint>> outages;  // an ongoing one ends at `to`
};

// The link's history, kept in an SQLite database of its own so that it survives restarts: each
// run of the monitor from its first paint, every change of the light as it happens, and every
// ping with its round trip, if it was answered. The first paint starts the history (red opens an
// outage there); an outage still open at quit is closed at quit, and one left open by a crash is
// closed at the next start, at the crashed run's last sign of life (its last paint), and marked
// so. Growth is bounded: each paint drops the pings older than `pingsKept` (a week of one every
// 2 s is about 300,000 rows, some 10 MB), and each run's first paint the runs and outages that
// ended longer than `outagesKept` ago.
//
// The database work runs on a serial queue of its own, so a slow disk never holds up the GUI
// thread. A failure never stops the monitor: it is reported through `onFailure` on the main
// queue, and the next write tries again. Use from the GUI thread.
class LinkHistory {
  public:
    using TimePoint = Outage::TimePoint;
    using Failure = std::function<void(const std::string& what)>;

    class Error : public std::runtime_error {
      public:
        using std::runtime_error::runtime_error;
    };

    // Opens (or makes) `file` and closes what a crash left open.
    LinkHistory(std::filesystem::path file, std::shared_ptr<DispatchQueue> mainQueue,
                Failure onFailure);
    // Closes the open outage and the run as quit, and waits until that is written.
    ~LinkHistory();
    LinkHistory(const LinkHistory&) = delete;
    LinkHistory& operator=(const LinkHistory&) = delete;

    static constexpr std::chrono::hours pingsKept{24 * 7};
    static constexpr std::chrono::hours outagesKept{24 * 366};

    // $XDG_DATA_HOME/Kavrin/history.sqlite, beside the data store.
    static std::filesystem::path defaultFile();
    const std::filesystem::path& file() const { return file_; }

    // Each paint of the light: the first starts the run, a change is written at once, and
    // either way the run's last sign of life moves on. Pings noted since go with it.
    void painted(TimePoint at, bool alive);
    // A ping sent at `at`, unanswered so far; written with the next paint. Returns the time it
    // is kept under, which names it: later than that of any ping noted before.
    TimePoint pingSent(TimePoint at);
    // The round trip of the ping kept under `sent`; written with the next paint.
    void pingAnswered(TimePoint sent, std::chrono::microseconds roundTrip);

    // Every outage, newest first, once the writes asked for before are done. Throws Error.
    std::vector<Outage> outages();

    // The pings from `from` (none, or before the oldest ping kept: from that one) to `to` in at
    // most `buckets` buckets, read once the writes asked for before are done; `done` runs on
    // the main queue with them, never inside this call. A failure is reported as any other,
    // and `done` is not called.
    void plot(std::optional<TimePoint> from, TimePoint to, std::size_t buckets,
              std::function<void(PingPlot)> done);

  private:
    struct Database;
    struct Paint {
        TimePoint at;
        bool alive;
        std::vector<TimePoint> sent;
        std::vector<std::pair<TimePoint, std::chrono::microseconds>> answered;
    };

    std::filesystem::path file_;
    std::shared_ptr<SerialQueue> queue_;
    std::shared_ptr<Database> database_;  // touched on queue_ only
    Paint next_;  // the pings noted for the next paint
    std::optional<TimePoint> lastSent_;
};

}  // namespace kavrin
