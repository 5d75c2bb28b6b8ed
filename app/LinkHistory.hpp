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

// The link's history, kept in an SQLite database of its own so that it survives restarts: each
// run of the monitor from its first paint, every change of the light as it happens, and the
// round-trip times. The first paint starts the history (red opens an outage there); an outage
// still open at quit is closed at quit, and one left open by a crash is closed at the next start,
// at the crashed run's last sign of life (its last paint), and marked so.
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

    // $XDG_DATA_HOME/Kavrin/history.sqlite, beside the data store.
    static std::filesystem::path defaultFile();
    const std::filesystem::path& file() const { return file_; }

    // Each paint of the light: the first starts the run, a change is written at once, and
    // either way the run's last sign of life moves on. Round trips noted since go with it.
    void painted(TimePoint at, bool alive);
    // A round trip timed at `at`; written with the next paint.
    void roundTrip(TimePoint at, std::chrono::microseconds time);

    // Every outage, newest first, once the writes asked for before are done. Throws Error.
    std::vector<Outage> outages();

  private:
    struct Database;
    struct Paint {
        TimePoint at;
        bool alive;
        std::vector<std::pair<TimePoint, std::chrono::microseconds>> roundTrips;
    };

    std::filesystem::path file_;
    std::shared_ptr<SerialQueue> queue_;
    std::shared_ptr<Database> database_;  // touched on queue_ only
    std::vector<std::pair<TimePoint, std::chrono::microseconds>> roundTrips_;
};

}  // namespace kavrin
