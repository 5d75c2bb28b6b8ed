#include "osc/dispatch/SerialQueue.hpp"

#include <atomic>
#include <future>

#include "osc/dispatch/GlobalQueue.hpp"
#include "tests/Recording.hpp"

using namespace kavrin;
using namespace std::chrono_literals;

namespace {

// Posts a marker and waits (bounded) until everything posted before it has run.
bool flush(DispatchQueue& queue) {
    auto done = std::make_shared<std::promise<void>>();
    auto future = done->get_future();
    queue.async([done] { done->set_value(); });
    return future.wait_for(5s) == std::future_status::ready;
}

}  // namespace

TEST(SerialQueue, RunsWorkOneAtATimeInPostingOrderFromManyThreads) {
    auto queue = SerialQueue::create("order", QualityOfService::userInitiated);

    constexpr int perThread = 2000;
    std::vector<std::vector<int>> seen(3);
    std::atomic<int> inside{0};
    std::atomic<bool> overlapped{false};
    std::vector<std::thread> posters;
    for (int t = 0; t < 3; ++t) {
        posters.emplace_back([&, t] {
            for (int i = 0; i < perThread; ++i) {
                queue->async([&, t, i] {
                    if (inside.fetch_add(1) != 0) overlapped = true;
                    EXPECT_TRUE(queue->isCurrent());
                    seen[t].push_back(i);  // unsynchronised on purpose: the queue serialises
                    inside.fetch_sub(1);
                });
            }
        });
    }
    for (auto& poster : posters) poster.join();
    ASSERT_TRUE(flush(*queue));
    EXPECT_FALSE(overlapped);
    EXPECT_FALSE(queue->isCurrent());
    for (const auto& list : seen) {
        ASSERT_EQ(list.size(), std::size_t{perThread});
        for (int i = 0; i < perThread; ++i) ASSERT_EQ(list[i], i);
    }
}

TEST(SerialQueue, SyncRunsAfterEarlierWorkAndInlineWhenAlreadyOnTheQueue) {
    auto queue = SerialQueue::create("sync");
    auto other = SerialQueue::create("other");
    std::vector<int> order;
    std::promise<void> gate;
    auto gateFuture = gate.get_future().share();
    queue->async([&, gateFuture] {
        gateFuture.wait();
        order.push_back(1);
    });
    std::thread opener([&] {
        std::this_thread::sleep_for(20ms);  // let sync() queue up behind the blocked item
        gate.set_value();
    });
    queue->sync([&] {
        order.push_back(2);
        EXPECT_TRUE(queue->isCurrent());
        // Re-entrant: sync on the queue we hold, and back from another queue we entered.
        queue->sync([&] { order.push_back(3); });
        other->sync([&] {
            EXPECT_TRUE(other->isCurrent());
            EXPECT_TRUE(queue->isCurrent());
            queue->sync([&] { order.push_back(4); });
        });
    });
    opener.join();
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4}));

    // A sync from inside async work on the same queue must not deadlock either.
    bool nested = false;
    queue->async([&] { queue->sync([&] { nested = true; }); });
    ASSERT_TRUE(flush(*queue));
    EXPECT_TRUE(nested);

    EXPECT_THROW(queue->sync([] { throw std::runtime_error("boom"); }), std::runtime_error);
    ASSERT_TRUE(flush(*queue));  // the queue was released despite the exception
}

TEST(SerialQueue, ManyPoolThreadsSyncingAtOnceDoNotStarveEachOther) {
    // Each queue's work syncs onto a second queue: with a pool of two threads, a sync that
    // needed a free pool thread would deadlock here.
    constexpr int pairs = 6;
    std::vector<std::shared_ptr<SerialQueue>> outer, inner;
    std::atomic<int> done{0};
    for (int i = 0; i < pairs; ++i) {
        outer.push_back(SerialQueue::create("outer"));
        inner.push_back(SerialQueue::create("inner"));
    }
    for (int i = 0; i < pairs; ++i) {
        outer[i]->async([&, i] {
            inner[i]->sync([&] {
                std::this_thread::sleep_for(5ms);
                ++done;
            });
        });
    }
    for (auto& queue : outer) ASSERT_TRUE(flush(*queue));
    EXPECT_EQ(done.load(), pairs);
}

TEST(SerialQueue, WorkWaitingOnABusyQueueNeverStarvesIt) {
    // The gate's work holds the gate until every waiter has arrived at it; each waiter's work
    // blocks in sync() on the gate. That needs a thread per waiter at once, more than the pool
    // starts with: the pool must add them, and on this path both kinds of wait must count.
    constexpr int waiters = 8;
    auto gate = SerialQueue::create("gate");
    std::atomic<int> arrived{0};
    std::atomic<int> passed{0};
    std::promise<bool> allArrived;
    auto gateStarted = std::make_shared<std::promise<void>>();
    gate->async([&, gateStarted] {
        gateStarted->set_value();
        const auto until = std::chrono::steady_clock::now() + 5s;
        while (arrived.load() < waiters && std::chrono::steady_clock::now() < until) {
            std::this_thread::sleep_for(1ms);
        }
        allArrived.set_value(arrived.load() == waiters);
    });
    gateStarted->get_future().wait();
    std::vector<std::shared_ptr<SerialQueue>> queues;
    for (int i = 0; i < waiters; ++i) {
        queues.push_back(SerialQueue::create("waiter"));
        queues.back()->async([&, i] {
            ++arrived;
            // Half wait through the generic hand-off, as on a queue that is no SerialQueue.
            if (i % 2 == 0) {
                gate->sync([&] { ++passed; });
            } else {
                gate->DispatchQueue::sync([&] { ++passed; });
            }
        });
    }
    EXPECT_TRUE(allArrived.get_future().get());
    for (auto& queue : queues) ASSERT_TRUE(flush(*queue));
    EXPECT_EQ(passed.load(), waiters);
    EXPECT_THROW(gate->DispatchQueue::sync([] { throw std::runtime_error("boom"); }),
                 std::runtime_error);
}

TEST(SerialQueue, AsyncAfterRunsByDeadlineNotBeforeIt) {
    auto queue = SerialQueue::create("after");
    test::Log<std::pair<int, DispatchQueue::Clock::time_point>> log(queue, 5s);
    const auto start = DispatchQueue::Clock::now();
    auto record = [&](int id) { return [&, id] { log.add({id, DispatchQueue::Clock::now()}); }; };
    queue->asyncAfter(150ms, record(3));
    queue->asyncAfter(start + 50ms, record(2));
    queue->asyncAfter(start - 1s, record(1));  // past deadline: runs like async
    // Equal deadlines run in posting order, however many.
    const auto same = start + 100ms;
    for (int id = 10; id < 60; ++id) queue->asyncAfter(same, record(id));
    ASSERT_TRUE(log.waitForSize(53));
    const auto ran = log.entries();
    std::vector<int> order, expected = {1, 2};
    for (const auto& [id, at] : ran) order.push_back(id);
    for (int id = 10; id < 60; ++id) expected.push_back(id);
    expected.push_back(3);
    EXPECT_EQ(order, expected);
    EXPECT_TRUE(log.allOnDelegateQueue);
    EXPECT_GE(ran[1].second - start, 50ms);
    EXPECT_GE(ran[2].second - start, 100ms);
    EXPECT_GE(ran[52].second - start, 150ms);
    EXPECT_LT(ran[52].second - start, 2s);
}

TEST(SerialQueue, SpecificKeysBelongToTheQueueRunningOnThisThread) {
    static const int key = 0;
    static const int otherKey = 0;
    int value = 7;
    auto queue = SerialQueue::create("keys");
    auto marked = SerialQueue::create("marked");
    auto plain = SerialQueue::create("plain");
    queue->setSpecific(&key, &value);
    marked->setSpecific(&key, &value);  // how a queue is marked as standing in for another

    EXPECT_EQ(queue->specific(&key), &value);
    EXPECT_EQ(queue->specific(&otherKey), nullptr);
    EXPECT_EQ(SerialQueue::getSpecific(&key), nullptr);  // not on any queue
    queue->sync([&] { EXPECT_EQ(SerialQueue::getSpecific(&key), &value); });
    marked->sync([&] { EXPECT_EQ(SerialQueue::getSpecific(&key), &value); });
    queue->sync([&] {
        // Inside a sync onto another queue, that queue's keys are the current ones.
        plain->sync([&] { EXPECT_EQ(SerialQueue::getSpecific(&key), nullptr); });
        EXPECT_EQ(SerialQueue::getSpecific(&key), &value);
    });

    marked->setSpecific(&key, nullptr);
    marked->sync([&] { EXPECT_EQ(SerialQueue::getSpecific(&key), nullptr); });
}

TEST(GlobalQueue, BlockedGlobalWorkDoesNotHoldUpSerialQueues) {
    auto global = GlobalQueue::get(QualityOfService::defaultQoS);
    EXPECT_TRUE(GlobalQueue::isGlobal(global.get()));
    EXPECT_EQ(global, GlobalQueue::get());
    auto serial = SerialQueue::create("serial");
    EXPECT_FALSE(GlobalQueue::isGlobal(serial.get()));

    // Occupy more global threads than the serial pool has.
    std::promise<void> release;
    auto released = release.get_future().share();
    for (int i = 0; i < 3; ++i) {
        global->async([global, released] {
            EXPECT_TRUE(global->isCurrent());
            released.wait();
        });
    }
    for (int i = 0; i < 3; ++i) {
        auto queue = SerialQueue::create("busy");
        EXPECT_TRUE(flush(*queue)) << "a serial queue was held up by blocked global work";
    }
    EXPECT_FALSE(global->isCurrent());

    // The global queue is concurrent: a further item runs while the others are blocked.
    EXPECT_TRUE(flush(*global));
    release.set_value();
    std::promise<void> late;
    auto lateFuture = late.get_future();
    global->asyncAfter(10ms, [&] { late.set_value(); });
    EXPECT_EQ(lateFuture.wait_for(5s), std::future_status::ready);
}
