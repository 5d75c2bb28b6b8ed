#include "app/LinkHistory.hpp"

#include <sqlite3.h>

#include <algorithm>
#include <initializer_list>
#include <system_error>

#include "app/AppDelegate.hpp"
#include "osc/dispatch/DispatchQueue.hpp"
#include "osc/dispatch/SerialQueue.hpp"

namespace kavrin {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;

std::int64_t millis(Outage::TimePoint at) {
    return std::chrono::duration_cast<milliseconds>(at.time_since_epoch()).count();
}

Outage::TimePoint timePoint(std::int64_t millis) {
    return Outage::TimePoint(std::chrono::duration_cast<Outage::TimePoint::duration>(milliseconds(millis)));
}

// Pings are kept to the microsecond, which makes their times unique keys.
std::int64_t micros(Outage::TimePoint at) {
    return std::chrono::duration_cast<microseconds>(at.time_since_epoch()).count();
}

Outage::TimePoint microsTimePoint(std::int64_t micros) {
    return Outage::TimePoint(std::chrono::duration_cast<Outage::TimePoint::duration>(microseconds(micros)));
}

// Times are milliseconds since 1970 UTC, but a ping's, which is microseconds. A run ends by
// 'quit' or 'crash'; an outage by 'recovered' (the light turned green), 'quit' or 'crash'. NULL
// while open. A ping's round trip is NULL until it is answered.
constexpr const char* schema = R"(
    PRAGMA journal_mode = WAL;
    PRAGMA synchronous = FULL;
    PRAGMA busy_timeout = 2000;
    CREATE TABLE IF NOT EXISTS runs (
        id INTEGER PRIMARY KEY, started_at INTEGER NOT NULL, last_seen_at INTEGER NOT NULL,
        ended_at INTEGER, ended_by TEXT);
    CREATE TABLE IF NOT EXISTS outages (
        id INTEGER PRIMARY KEY, run INTEGER NOT NULL REFERENCES runs(id),
        started_at INTEGER NOT NULL, ended_at INTEGER, ended_by TEXT);
    CREATE TABLE IF NOT EXISTS pings (sent_us INTEGER PRIMARY KEY, micros INTEGER);
)";

// Earlier versions kept only the round trips, under the time of the reply.
constexpr const char* fromRoundTrips = R"(
    INSERT OR IGNORE INTO pings (sent_us, micros) SELECT at * 1000 - micros, micros FROM round_trips;
    DROP TABLE round_trips;
)";

}  // namespace

const char* Outage::endName(End end) {
    switch (end) {
        case End::ongoing: return "ongoing";
        case End::recovered: return "recovered";
        case End::quit: return "quit";
        case End::crash: return "crash";
    }
    return "ongoing";
}

// The connection and the run being written; on the history's queue only.
struct LinkHistory::Database {
    std::filesystem::path file;
    std::shared_ptr<DispatchQueue> mainQueue;
    Failure onFailure;
    sqlite3* db = nullptr;
    std::int64_t run = 0;  // 0 until the first paint is written
    bool alive = false;    // the light as last written

    ~Database() { sqlite3_close(db); }

    [[noreturn]] void fail(const std::string& what) const {
        throw Error(what + ": " + (db ? sqlite3_errmsg(db) : "not open"));
    }

    void open() {
        if (db) return;
        std::error_code error;
        std::filesystem::create_directories(file.parent_path(), error);
        if (error) throw Error("cannot make " + file.parent_path().string() + ": " + error.message());
        if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE,
                            nullptr) != SQLITE_OK ||
            sqlite3_exec(db, schema, nullptr, nullptr, nullptr) != SQLITE_OK) {
            const std::string what = "cannot open " + file.string() + ": " +
                                     (db ? sqlite3_errmsg(db) : "out of memory");
            sqlite3_close(db);
            db = nullptr;
            throw Error(what);
        }
        transaction([&] {
            bool roundTripsKept = false;
            exec("SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = 'round_trips'", {},
                 [&](sqlite3_stmt*) { roundTripsKept = true; });
            if (roundTripsKept && sqlite3_exec(db, fromRoundTrips, nullptr, nullptr, nullptr) != SQLITE_OK) {
                fail("cannot convert the round trips");
            }
        });
        closeCrashedRuns();
    }

    // Runs still open belong to a monitor that stopped without quitting (this one's has not
    // started yet): they and their outages end at their last sign of life.
    void closeCrashedRuns() {
        const std::string crash = Outage::endName(Outage::End::crash);
        transaction([&] {
            exec("UPDATE outages SET ended_by = '" + crash +
                     "', ended_at = (SELECT last_seen_at FROM runs WHERE runs.id = outages.run) "
                     "WHERE ended_at IS NULL",
                 {});
            exec("UPDATE runs SET ended_at = last_seen_at, ended_by = '" + crash +
                     "' WHERE ended_at IS NULL",
                 {});
        });
    }

    // Runs `sql` with `values` bound in order; calls `row` for each result row.
    void exec(const std::string& sql, std::initializer_list<std::int64_t> values,
              const std::function<void(sqlite3_stmt*)>& row = nullptr) {
        sqlite3_stmt* raw = nullptr;
        if (sqlite3_prepare_v2(db, sql.c_str(), -1, &raw, nullptr) != SQLITE_OK) {
            fail("cannot read history");
        }
        const std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)> statement(raw, &sqlite3_finalize);
        int index = 1;
        for (const std::int64_t value : values) sqlite3_bind_int64(raw, index++, value);
        for (;;) {
            const int step = sqlite3_step(raw);
            if (step == SQLITE_DONE) return;
            if (step != SQLITE_ROW) fail("cannot write history");
            if (row) row(raw);
        }
    }

    // One transaction: all of it is written or none.
    void transaction(const std::function<void()>& work) {
        open();
        exec("BEGIN IMMEDIATE", {});
        try {
            work();
            exec("COMMIT", {});
        } catch (const Error&) {
            sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
            throw;
        }
    }

    // The run's open outage, if any, ends at `at`, as `end` says.
    void closeOutage(std::int64_t at, Outage::End end) {
        exec(std::string("UPDATE outages SET ended_at = ?, ended_by = '") + Outage::endName(end) +
                 "' WHERE run = ? AND ended_at IS NULL",
             {at, run});
    }

    void paint(const Paint& paint) {
        const std::int64_t at = millis(paint.at);
        transaction([&] {
            for (const TimePoint sent : paint.sent) {
                exec("INSERT OR REPLACE INTO pings (sent_us) VALUES (?)", {micros(sent)});
            }
            for (const auto& [sent, time] : paint.answered) {
                exec("UPDATE pings SET micros = ? WHERE sent_us = ?", {time.count(), micros(sent)});
            }
            exec("DELETE FROM pings WHERE sent_us < ?", {micros(paint.at - pingsKept)});
            // A run whose start could not be written starts at the first paint that can be.
            if (run == 0) {
                const std::int64_t oldest = millis(paint.at - outagesKept);
                exec("DELETE FROM outages WHERE ended_at < ?", {oldest});
                exec("DELETE FROM runs WHERE ended_at < ? AND id NOT IN (SELECT run FROM outages)", {oldest});
                exec("INSERT INTO runs (started_at, last_seen_at) VALUES (?, ?)", {at, at});
                run = sqlite3_last_insert_rowid(db);
                if (!paint.alive) exec("INSERT INTO outages (run, started_at) VALUES (?, ?)", {run, at});
            } else {
                exec("UPDATE runs SET last_seen_at = ? WHERE id = ?", {at, run});
                if (paint.alive && !alive) closeOutage(at, Outage::End::recovered);
                if (!paint.alive && alive) {
                    exec("INSERT INTO outages (run, started_at) VALUES (?, ?)", {run, at});
                }
            }
        });
        alive = paint.alive;
    }

    void quit(std::int64_t at) {
        if (run == 0) return;
        transaction([&] {
            closeOutage(at, Outage::End::quit);
            exec(std::string("UPDATE runs SET last_seen_at = ?, ended_at = ?, ended_by = '") +
                     Outage::endName(Outage::End::quit) + "' WHERE id = ?",
                 {at, at, run});
        });
    }

    // Each outage with the round trips of the healthy time before it in its run: from the later
    // of the run's start and the previous outage's end, up to its own start.
    std::vector<Outage> outages() {
        open();
        std::vector<Outage> list;
        std::vector<std::pair<std::int64_t, std::int64_t>> healthy;
        exec(R"(SELECT o.started_at, o.ended_at, o.ended_by,
                       COALESCE((SELECT MAX(p.ended_at) FROM outages p
                                 WHERE p.run = o.run AND p.started_at < o.started_at),
                                r.started_at)
                FROM outages o JOIN runs r ON r.id = o.run
                ORDER BY o.started_at DESC, o.id DESC)",
             {}, [&](sqlite3_stmt* row) {
                 Outage outage;
                 outage.started = timePoint(sqlite3_column_int64(row, 0));
                 if (sqlite3_column_type(row, 1) != SQLITE_NULL) {
                     outage.ended = timePoint(sqlite3_column_int64(row, 1));
                     const auto* how = reinterpret_cast<const char*>(sqlite3_column_text(row, 2));
                     for (auto end : {Outage::End::recovered, Outage::End::quit, Outage::End::crash}) {
                         if (how && std::string_view(how) == Outage::endName(end)) outage.end = end;
                     }
                 }
                 list.push_back(outage);
                 healthy.emplace_back(sqlite3_column_int64(row, 3), sqlite3_column_int64(row, 0));
             });
        for (std::size_t i = 0; i < list.size(); ++i) {
            std::vector<std::int64_t> times;
            exec("SELECT micros FROM pings WHERE sent_us >= ? AND sent_us < ? AND micros IS NOT NULL "
                 "ORDER BY micros",
                 {healthy[i].first * 1000, healthy[i].second * 1000},
                 [&](sqlite3_stmt* row) { times.push_back(sqlite3_column_int64(row, 0)); });
            if (times.empty()) continue;
            const std::size_t n = times.size();
            list[i].medianRoundTrip = microseconds((times[(n - 1) / 2] + times[n / 2]) / 2);
            list[i].worstRoundTrip = microseconds(times.back());
        }
        return list;
    }

    PingPlot plot(std::optional<TimePoint> from, TimePoint to, std::size_t buckets) {
        open();
        PingPlot plot;
        plot.to = to;
        std::int64_t first = 0, latest = 0;
        exec("SELECT IFNULL(MIN(sent_us), 0), IFNULL(MAX(sent_us), 0) FROM pings", {},
             [&](sqlite3_stmt* row) {
                 first = sqlite3_column_int64(row, 0);
                 latest = sqlite3_column_int64(row, 1);
             });
        // A span that starts before the first ping kept starts with it.
        const auto oldest = first != 0 ? std::optional(std::min(microsTimePoint(first), to)) : std::nullopt;
        plot.from = from && oldest ? std::max(*from, *oldest)
                    : from         ? *from
                    : oldest       ? *oldest
                                   : to - std::chrono::hours(1);
        const std::int64_t start = micros(plot.from);
        const std::int64_t width =
            std::max<std::int64_t>(1, (micros(to) - start) / static_cast<std::int64_t>(std::max<std::size_t>(buckets, 1)) + 1);
        exec(R"(SELECT MIN(sent_us), COUNT(*), SUM(micros IS NULL AND sent_us < ?), MAX(micros)
                FROM pings WHERE sent_us >= ? AND sent_us <= ?
                GROUP BY (sent_us - ?) / ? ORDER BY 1)",
             {latest, start, micros(to), start, width}, [&](sqlite3_stmt* row) {
                 PingPlot::Bucket bucket;
                 bucket.firstSent = microsTimePoint(sqlite3_column_int64(row, 0));
                 bucket.pings = sqlite3_column_int(row, 1);
                 bucket.lost = sqlite3_column_int(row, 2);
                 if (sqlite3_column_type(row, 3) != SQLITE_NULL) {
                     bucket.worstRoundTrip = microseconds(sqlite3_column_int64(row, 3));
                 }
                 plot.buckets.push_back(bucket);
             });
        const std::int64_t end = millis(to);
        exec(R"(SELECT started_at, IFNULL(ended_at, ?) FROM outages
                WHERE started_at <= ? AND (ended_at IS NULL OR ended_at >= ?) ORDER BY started_at)",
             {end, end, millis(plot.from)}, [&](sqlite3_stmt* row) {
                 plot.outages.emplace_back(timePoint(sqlite3_column_int64(row, 0)),
                                           timePoint(sqlite3_column_int64(row, 1)));
             });
        return plot;
    }

    // Runs `work`, reporting a failure on the main queue instead of throwing.
    void reporting(const std::function<void()>& work) {
        try {
            work();
        } catch (const Error& error) {
            mainQueue->async([report = onFailure, what = std::string(error.what())] { report(what); });
        }
    }
};

LinkHistory::LinkHistory(std::filesystem::path file, std::shared_ptr<DispatchQueue> mainQueue,
                         Failure onFailure)
    : file_(std::move(file)),
      queue_(SerialQueue::create("LinkHistory", QualityOfService::utility)),
      database_(std::make_shared<Database>()) {
    database_->file = file_;
    database_->mainQueue = std::move(mainQueue);
    database_->onFailure = std::move(onFailure);
    queue_->async([database = database_] { database->reporting([&] { database->open(); }); });
}

LinkHistory::~LinkHistory() {
    const std::int64_t at = millis(std::chrono::system_clock::now());
    queue_->sync([database = database_, at] { database->reporting([&] { database->quit(at); }); });
}

std::filesystem::path LinkHistory::defaultFile() {
    return AppDelegate::defaultStoreDirectory() / "history.sqlite";
}

void LinkHistory::painted(TimePoint at, bool alive) {
    next_.at = at;
    next_.alive = alive;
    queue_->async([database = database_, paint = std::move(next_)] {
        database->reporting([&] { database->paint(paint); });
    });
    next_ = {};
}

LinkHistory::TimePoint LinkHistory::pingSent(TimePoint at) {
    at = std::chrono::floor<microseconds>(at);
    if (lastSent_ && at <= *lastSent_) at = *lastSent_ + microseconds(1);
    lastSent_ = at;
    next_.sent.push_back(at);
    return at;
}

void LinkHistory::pingAnswered(TimePoint sent, std::chrono::microseconds roundTrip) {
    next_.answered.emplace_back(sent, roundTrip);
}

void LinkHistory::plot(std::optional<TimePoint> from, TimePoint to, std::size_t buckets,
                       std::function<void(PingPlot)> done) {
    queue_->async([database = database_, from, to, buckets, done = std::move(done)] {
        database->reporting([&] {
            database->mainQueue->async(
                [done, plot = database->plot(from, to, buckets)]() mutable { done(std::move(plot)); });
        });
    });
}

std::vector<Outage> LinkHistory::outages() {
    std::vector<Outage> list;
    queue_->sync([&] { list = database_->outages(); });
    return list;
}

}  // namespace kavrin
