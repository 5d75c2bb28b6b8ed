// What reaches the GUI thread's event loop: the main queue's work and the stdout lines it writes
// in batches. The quit signals are the program tests' (MonitorProgramTests.cpp).

#include <poll.h>
#include <unistd.h>

#include <QtTest/QTest>

#include "app/QtMainQueue.hpp"
#include "app/StdoutLines.hpp"

namespace kavrin {
namespace {

using namespace std::chrono_literals;
using Clock = DispatchQueue::Clock;

TEST(QtMainQueue, RunsWorkFromAnyThreadOnTheGuiThreadInOrderAndNotBeforeItsDeadline) {
    QtMainQueue queue;
    std::vector<int> order;
    bool onGuiThread = true;
    Clock::time_point delayedRanAt{};
    const auto postedAt = Clock::now();

    std::thread([&] {
        EXPECT_FALSE(queue.isCurrent());
        queue.asyncAfter(150ms, [&] {
            delayedRanAt = Clock::now();
            order.push_back(3);
        });
        for (int i : {1, 2}) {
            queue.async([&, i] {
                onGuiThread = onGuiThread && queue.isCurrent();
                order.push_back(i);
            });
        }
    }).join();
    queue.async([&] { order.push_back(0); });  // posted last from here, never run inline
    EXPECT_TRUE(order.empty());
    // Equal deadlines run in posting order, and an earlier deadline posted later runs first.
    const auto same = postedAt + 100ms;
    for (int i = 10; i < 30; ++i) queue.asyncAfter(same, [&, i] { order.push_back(i); });
    queue.asyncAfter(postedAt + 50ms, [&] { order.push_back(5); });

    EXPECT_TRUE(QTest::qWaitFor([&] { return order.size() == 25; }, 5000));
    std::vector<int> expected{1, 2, 0, 5};
    for (int i = 10; i < 30; ++i) expected.push_back(i);
    expected.push_back(3);
    EXPECT_EQ(order, expected);
    EXPECT_TRUE(onGuiThread);
    EXPECT_GE(delayedRanAt - postedAt, 150ms);
}

// Points stdout at a pipe for the life of the object; written() reads back what reached it so far.
class CapturedStdout {
  public:
    CapturedStdout() {
        EXPECT_EQ(::pipe(pipe_), 0);
        ::dup2(pipe_[1], STDOUT_FILENO);
    }
    ~CapturedStdout() {
        ::dup2(saved_, STDOUT_FILENO);
        for (int fd : {saved_, pipe_[0], pipe_[1]}) ::close(fd);
    }
    std::string written() {
        std::string text;
        pollfd readable{pipe_[0], POLLIN, 0};
        char chunk[4096];
        for (ssize_t n;
             ::poll(&readable, 1, 0) == 1 && (n = ::read(pipe_[0], chunk, sizeof chunk)) > 0;) {
            text.append(chunk, static_cast<std::size_t>(n));
        }
        return text;
    }

  private:
    int saved_ = ::dup(STDOUT_FILENO);
    int pipe_[2] = {-1, -1};
};

TEST(StdoutLinesTest, ALineLeavesAtOnceOrWhenItsOutermostBatchEndsAndAMainQueueFloodIsBatched) {
    CapturedStdout stdout_;
    StdoutLines::write("one");
    EXPECT_EQ(stdout_.written(), "one\n");
    {
        const StdoutLines::Batch outer;
        StdoutLines::write("two");
        {
            const StdoutLines::Batch inner;
            StdoutLines::write("three \xE2\x86\x92 four");
        }
        EXPECT_EQ(stdout_.written(), "") << "the outer batch is still open";
    }
    EXPECT_EQ(stdout_.written(), "two\nthree \xE2\x86\x92 four\n");

    // The main queue runs a flood in order, in batches, each written as it ends.
    auto queue = std::make_shared<QtMainQueue>();
    std::vector<int> ran;
    std::vector<std::string> seenAtStart;  // what stdout held as each item began
    const auto post = [&](int i) {
        queue->async([&, i] {
            if (i > 0) seenAtStart.push_back(stdout_.written());
            ran.push_back(i);
            StdoutLines::write(std::to_string(i));
        });
    };

    post(0);
    ASSERT_TRUE(QTest::qWaitFor([&] { return ran.size() == 1; }, 5000)) << "the first runs at once";
    EXPECT_EQ(stdout_.written(), "0\n");
    std::string all;
    for (int i = 1; i <= 100; ++i) {
        post(i);
        all += std::to_string(i) + "\n";
    }
    ASSERT_TRUE(QTest::qWaitFor([&] { return ran.size() == 101; }, 5000));
    for (int i = 0; i <= 100; ++i) EXPECT_EQ(ran[static_cast<std::size_t>(i)], i);
    EXPECT_EQ(seenAtStart[99], "") << "items posted together run as one batch";
    EXPECT_EQ(stdout_.written(), all);
}

}  // namespace
}  // namespace kavrin
