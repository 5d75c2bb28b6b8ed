#include <QtTest/QTest>

#include "app/QtMainQueue.hpp"

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

}  // namespace
}  // namespace kavrin
