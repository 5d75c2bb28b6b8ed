#include <gtest/gtest.h>

#include <QtTest/QTest>
#include <chrono>
#include <thread>
#include <vector>

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

    EXPECT_TRUE(QTest::qWaitFor([&] { return order.size() == 4; }, 5000));
    EXPECT_EQ(order, (std::vector<int>{1, 2, 0, 3}));
    EXPECT_TRUE(onGuiThread);
    EXPECT_GE(delayedRanAt - postedAt, 150ms);
}

}  // namespace
}  // namespace kavrin
