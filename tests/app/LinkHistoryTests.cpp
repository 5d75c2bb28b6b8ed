#include <QTemporaryDir>
#include <QtTest/QTest>
#include <tuple>

#include "PrivateEnvironment.hpp"
#include "app/LinkHistory.hpp"
#include "app/OutageCsv.hpp"
#include "app/QtMainQueue.hpp"

namespace kavrin {
namespace {

using namespace std::chrono;
using End = Outage::End;

// Times in the history, in whole seconds after 2023-11-14 22:13:20 UTC.
Outage::TimePoint at(int second) {
    return Outage::TimePoint(seconds(1'700'000'000 + second));
}

const std::optional<microseconds> none;

// The outages as rows that compare whole: started, ended, how, median and worst round trip.
using Row = std::tuple<Outage::TimePoint, std::optional<Outage::TimePoint>, End,
                       std::optional<microseconds>, std::optional<microseconds>>;
std::vector<Row> rows(const std::vector<Outage>& outages) {
    std::vector<Row> rows;
    for (const auto& o : outages) {
        rows.emplace_back(o.started, o.ended, o.end, o.medianRoundTrip, o.worstRoundTrip);
    }
    return rows;
}

class LinkHistoryTest : public ::testing::Test {
  protected:
    std::unique_ptr<LinkHistory> open() {
        return std::make_unique<LinkHistory>(file, std::make_shared<QtMainQueue>(),
                                             [this](const std::string& what) { failures.push_back(what); });
    }

    QTemporaryDir directory;
    std::filesystem::path file = directory.filePath("Kavrin/history.sqlite").toStdString();
    std::vector<std::string> failures;
};

TEST_F(LinkHistoryTest, RecordsOutagesFromTheFirstPaintWithTheRoundTripsBeforeEach) {
    {
        auto history = open();
        history->painted(at(0), false);  // red at the first paint: down from the start
        history->painted(at(2), true);
        history->pingAnswered(history->pingSent(at(3)), microseconds(400));
        history->painted(at(4), true);
        const auto twice = history->pingSent(at(5));
        EXPECT_GT(history->pingSent(at(5)), twice) << "each ping is kept under a time of its own";
        history->pingAnswered(twice, microseconds(1200));
        history->pingAnswered(history->pingSent(at(5)), microseconds(900));
        history->painted(at(6), false);
        history->painted(at(8), false);
        history->painted(at(10), true);
        history->painted(at(12), false);  // still down at quit

        // The median of 400, 900 and 1200; none timed between 10 and 12, nor before the first.
        EXPECT_EQ(rows(history->outages()),
                  (std::vector<Row>{{at(12), std::nullopt, End::ongoing, none, none},
                                    {at(6), at(10), End::recovered, microseconds(900),
                                     microseconds(1200)},
                                    {at(0), at(2), End::recovered, none, none}}));
    }
    const auto outages = open()->outages();  // survives the restart
    ASSERT_EQ(outages.size(), 3u);
    EXPECT_EQ(outages[0].end, End::quit);
    EXPECT_GT(*outages[0].ended, at(12)) << "closed at the time of quitting";
    EXPECT_TRUE(failures.empty());
}

TEST_F(LinkHistoryTest, AnOutageACrashLeftOpenIsClosedAtTheNextStartAtItsLastPaint) {
    {
        auto history = open();
        history->painted(at(0), true);
        history->painted(at(2), false);
        history->painted(at(4), false);
    }
    // As if the monitor had stopped after its paint at 4 s without quitting; and as an earlier
    // version kept round trips, under the time of the reply (400 µs after a ping at 1 s).
    test::SqliteFile(QString::fromStdString(file)).rows(
        "UPDATE runs SET ended_at = NULL, ended_by = NULL, last_seen_at = 1700000004000;"
        "UPDATE outages SET ended_at = NULL, ended_by = NULL;"
        "CREATE TABLE round_trips (at INTEGER NOT NULL, micros INTEGER NOT NULL);"
        "INSERT INTO round_trips VALUES (1700000001000, 400);");

    auto history = open();
    history->painted(at(100), false);
    EXPECT_EQ(rows(history->outages()),  // this run's own outage stays open
              (std::vector<Row>{{at(100), std::nullopt, End::ongoing, none, none},
                                {at(2), at(4), End::crash, microseconds(400), microseconds(400)}}));
}

TEST_F(LinkHistoryTest, KeepsAWeekOfPingsAndPlotsThemInBucketsWithTheOutages) {
    auto history = open();
    history->pingSent(at(-8 * 24 * 3600));
    history->painted(at(-8 * 24 * 3600), true);
    history->pingAnswered(history->pingSent(at(1)), microseconds(400));
    history->painted(at(2), true);  // a week after the first ping: that one goes
    history->pingSent(at(3));       // never answered
    history->painted(at(4), false);
    history->pingAnswered(history->pingSent(at(5)), milliseconds(3));
    history->pingSent(at(7));  // the latest: still awaited, not lost
    history->painted(at(8), true);

    std::vector<PingPlot> plots;
    const auto keep = [&](PingPlot plot) { plots.push_back(std::move(plot)); };
    history->plot(std::nullopt, at(10), 100, keep);  // from the oldest ping kept
    history->plot(at(0), at(10), 2, keep);  // from before the first ping: from that one
    ASSERT_TRUE(QTest::qWaitFor([&] { return plots.size() == 2; }, 5000));

    // Each plot's buckets: first ping, pings, lost, worst round trip in µs (-1 for none).
    using Buckets = std::vector<std::tuple<Outage::TimePoint, int, int, std::int64_t>>;
    const Buckets expected[] = {
        {{at(1), 1, 0, 400}, {at(3), 1, 1, -1}, {at(5), 1, 0, 3000}, {at(7), 1, 0, -1}},
        {{at(1), 3, 1, 3000}, {at(7), 1, 0, -1}},
    };
    for (std::size_t i = 0; i < plots.size(); ++i) {
        EXPECT_EQ(std::pair(plots[i].from, plots[i].to), std::pair(at(1), at(10))) << i;
        Buckets buckets;
        for (const auto& b : plots[i].buckets) {
            buckets.emplace_back(b.firstSent, b.pings, b.lost,
                                 b.worstRoundTrip.value_or(microseconds(-1)).count());
        }
        EXPECT_EQ(buckets, expected[i]) << i;
        EXPECT_EQ(plots[i].outages, (std::vector{std::pair(at(4), at(8))})) << i;
    }
    EXPECT_TRUE(failures.empty());
}

TEST_F(LinkHistoryTest, AFailureIsReportedAndNeverStopsTheMonitor) {
    QFile blocker(directory.filePath("Kavrin"));  // a file where the folder should be
    ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
    blocker.close();
    {
        auto history = open();
        history->painted(at(0), false);
        history->painted(at(2), true);
        EXPECT_THROW(history->outages(), LinkHistory::Error);
        ASSERT_TRUE(QTest::qWaitFor([&] { return failures.size() >= 2; }, 5000));
        EXPECT_THAT(failures[0], ::testing::HasSubstr("Kavrin"));
    }
    // Once the folder can be made, the next paint starts the history there.
    ASSERT_TRUE(QFile::remove(directory.filePath("Kavrin")));
    auto history = open();
    history->painted(at(10), false);
    ASSERT_EQ(history->outages().size(), 1u);
}

TEST(OutageCsvTest, WritesOneRowPerOutageInUtcWithEmptyFieldsForWhatIsUnknown) {
    Outage ongoing{at(100), std::nullopt, End::ongoing, std::nullopt, std::nullopt};
    Outage recovered{at(10), at(72), End::recovered, microseconds(400), microseconds(12'345)};
    Outage crashed{at(0), at(4), End::crash, std::nullopt, std::nullopt};

    EXPECT_EQ(outagesCsv({ongoing, recovered, crashed}, at(103) + milliseconds(250)),
              "started,ended,duration_s,ended_by,round_trip_median_ms,round_trip_worst_ms\r\n"
              "2023-11-14T22:15:00.000Z,,3.250,ongoing,,\r\n"
              "2023-11-14T22:13:30.000Z,2023-11-14T22:14:32.000Z,62.000,recovered,0.400,12.345\r\n"
              "2023-11-14T22:13:20.000Z,2023-11-14T22:13:24.000Z,4.000,crash,,\r\n");
    EXPECT_EQ(outagesCsv({}, at(0)),
              "started,ended,duration_s,ended_by,round_trip_median_ms,round_trip_worst_ms\r\n");
}

}  // namespace
}  // namespace kavrin
