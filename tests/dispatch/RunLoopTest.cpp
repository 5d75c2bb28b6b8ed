#include "osc/dispatch/RunLoop.hpp"

#include <csignal>

using namespace kavrin;
using namespace std::chrono_literals;

TEST(RunLoop, RunsPostedWorkOnItsThreadUntilStopped) {
    RunLoop loop;
    std::vector<int> order;
    bool onLoop = true;
    const auto start = DispatchQueue::Clock::now();
    loop.asyncAfter(start + 60ms, [&] { order.push_back(3); });
    loop.asyncAfter(start + 30ms, [&] { order.push_back(2); });
    std::thread([&] {
        loop.async([&] {
            onLoop = onLoop && loop.isCurrent();
            order.push_back(1);
        });
        loop.asyncAfter(start + 60ms, [&] {  // equal deadline: after the first one posted
            order.push_back(4);
            loop.stop(7);
        });
    }).join();
    loop.asyncAfter(start + 10s, [&] { order.push_back(99); });
    EXPECT_FALSE(loop.isCurrent());
    EXPECT_EQ(loop.run(), 7);
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4}));
    EXPECT_TRUE(onLoop);
    EXPECT_GE(DispatchQueue::Clock::now() - start, 60ms);

    // A stop made before run() makes it return at once; the pending work waits for later.
    loop.stop(3);
    EXPECT_EQ(loop.run(), 3);
    EXPECT_EQ(order.size(), 4u);
}

TEST(RunLoop, AWatchedSignalStopsItAndTheFormerHandlerComesBack) {
    struct sigaction before {};
    ::sigaction(SIGUSR1, nullptr, &before);
    {
        RunLoop loop;
        loop.stopOnSignals({SIGUSR1});
        loop.asyncAfter(DispatchQueue::Clock::now() + 20ms, [] { std::raise(SIGUSR1); });
        EXPECT_EQ(loop.run(), 128 + SIGUSR1);
    }
    struct sigaction after {};
    ::sigaction(SIGUSR1, nullptr, &after);
    EXPECT_EQ(after.sa_handler, before.sa_handler);
}
