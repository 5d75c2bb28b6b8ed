#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "osc/dispatch/ManualQueue.hpp"
#include "osc/dispatch/ReadinessSource.hpp"
#include "osc/dispatch/TimerSource.hpp"

using namespace kavrin;
using namespace std::chrono_literals;

namespace {

// Counts events delivered on a queue and lets the test wait for a count, with a bound.
struct Counter {
    std::mutex mutex;
    std::condition_variable cv;
    int count = 0;
    void bump() {
        std::lock_guard lock(mutex);
        ++count;
        cv.notify_all();
    }
    bool waitFor(int n, std::chrono::milliseconds bound = 5000ms) {
        std::unique_lock lock(mutex);
        return cv.wait_for(lock, bound, [&] { return count >= n; });
    }
    int value() {
        std::lock_guard lock(mutex);
        return count;
    }
};

void drainQueue(SerialQueue& queue) {
    queue.sync([] {});
}

}  // namespace

TEST(ReadinessSource, ReadEventsFollowSuspendResumeAndCancelRunsOnce) {
    int fds[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0, fds), 0);
    auto queue = SerialQueue::create("source");
    auto source = ReadinessSource::create(fds[0], ReadinessSource::Kind::read, queue);
    Counter events, cancels;
    std::size_t lastAvailable = 0;
    std::atomic<bool> wrongQueue{false};
    source->setEventHandler([&] {
        if (!queue->isCurrent()) wrongQueue = true;
        lastAvailable = source->bytesAvailable();
        char buffer[64];
        (void)::recv(fds[0], buffer, sizeof buffer, 0);  // consume, or it stays readable
        events.bump();
    });
    source->setCancelHandler([&] {
        if (!queue->isCurrent()) wrongQueue = true;
        EXPECT_EQ(::close(fds[0]), 0);  // the source left our descriptor open
        cancels.bump();
    });

    // Created suspended: data waiting does not raise an event.
    ASSERT_EQ(::send(fds[1], "abc", 3, 0), 3);
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(events.value(), 0);

    source->resume();
    ASSERT_TRUE(events.waitFor(1));
    drainQueue(*queue);
    EXPECT_EQ(lastAvailable, 3u);

    source->suspend();
    drainQueue(*queue);
    ASSERT_EQ(::send(fds[1], "defg", 4, 0), 4);
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(events.value(), 1) << "an event arrived while suspended";

    source->resume();
    ASSERT_TRUE(events.waitFor(2));
    drainQueue(*queue);
    EXPECT_EQ(lastAvailable, 4u);

    source->suspend();
    source->cancel();
    source->cancel();
    EXPECT_TRUE(source->isCancelled());
    ASSERT_TRUE(cancels.waitFor(1));
    source->resume();  // no effect after cancel
    std::this_thread::sleep_for(50ms);
    drainQueue(*queue);
    EXPECT_EQ(cancels.value(), 1);
    EXPECT_EQ(events.value(), 2);
    EXPECT_FALSE(wrongQueue);
    ::close(fds[1]);
}

TEST(ReadinessSource, ReadAndWriteSourcesShareADescriptor) {
    int fds[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0, fds), 0);
    auto queue = SerialQueue::create("pair");
    auto reader = ReadinessSource::create(fds[0], ReadinessSource::Kind::read, queue);
    auto writer = ReadinessSource::create(fds[0], ReadinessSource::Kind::write, queue);
    Counter written, read, cancelled;
    writer->setEventHandler([&] {
        writer->suspend();  // writable stays true: one event is enough
        written.bump();
    });
    reader->setEventHandler([&] {
        char c;
        (void)::recv(fds[0], &c, 1, 0);
        read.bump();
    });
    // The last of the two cancel handlers closes the descriptor.
    auto remaining = std::make_shared<std::atomic<int>>(2);
    auto closeLast = [&, remaining] {
        if (--*remaining == 0) {
            EXPECT_EQ(::close(fds[0]), 0);
            cancelled.bump();
        }
    };
    reader->setCancelHandler(closeLast);
    writer->setCancelHandler(closeLast);
    writer->resume();
    reader->resume();
    ASSERT_TRUE(written.waitFor(1));
    ASSERT_EQ(::send(fds[1], "x", 1, 0), 1);
    ASSERT_TRUE(read.waitFor(1));
    writer->cancel();
    reader->cancel();
    ASSERT_TRUE(cancelled.waitFor(1));
    drainQueue(*queue);
    EXPECT_EQ(written.value(), 1);
    ::close(fds[1]);
}

// A flood is read a pause at a time, losing nothing; a source cancelled while pausing still
// finishes once.
TEST(ReadinessSource, AFloodIsReadAfterEachPauseAndCancelEndsAPause) {
    int fds[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0, fds), 0);
    ReadinessSource::setFloodInterval(300ms);  // far longer than the sends between events take
    auto queue = SerialQueue::create("flood");
    auto source = ReadinessSource::create(fds[0], ReadinessSource::Kind::read, queue);
    Counter events, cancels;
    std::vector<int> perEvent;  // datagrams each event read
    source->setEventHandler([&] {
        char c;
        int read = 0;
        while (::recv(fds[0], &c, 1, 0) == 1) ++read;
        perEvent.push_back(read);
        events.bump();
    });
    source->setCancelHandler([&] {
        EXPECT_EQ(::close(fds[0]), 0);
        cancels.bump();
    });
    source->resume();
    // The second datagram comes soon after the first was read: a flood, so the source pauses
    // after reading it, and the next two come in that pause and are read by one event.
    for (int n = 1; n <= 2; ++n) {
        ASSERT_EQ(::send(fds[1], "x", 1, 0), 1);
        ASSERT_TRUE(events.waitFor(n));
        drainQueue(*queue);  // the event is over: the source waits, or pauses
    }
    ASSERT_EQ(::send(fds[1], "y", 1, 0), 1);
    ASSERT_EQ(::send(fds[1], "z", 1, 0), 1);
    ASSERT_TRUE(events.waitFor(3));
    source->cancel();  // in the pause that follows
    ASSERT_TRUE(cancels.waitFor(1));
    drainQueue(*queue);
    EXPECT_EQ(perEvent, (std::vector<int>{1, 1, 2}));
    ReadinessSource::setFloodInterval(0us);
    ::close(fds[1]);
}

TEST(TimerSource, FiresOnceAfterItsDelayAndNotAfterCancel) {
    auto queue = SerialQueue::create("timer");
    auto timer = TimerSource::create(queue);
    Counter fired;
    DispatchQueue::Clock::time_point firedAt;
    timer->setEventHandler([&] {
        EXPECT_TRUE(queue->isCurrent());
        firedAt = DispatchQueue::Clock::now();
        fired.bump();
    });
    timer->schedule(60ms);
    std::this_thread::sleep_for(80ms);
    EXPECT_EQ(fired.value(), 0) << "fired before resume";
    const auto start = DispatchQueue::Clock::now();
    timer->resume();
    ASSERT_TRUE(fired.waitFor(1));
    drainQueue(*queue);
    EXPECT_GE(firedAt - start, 60ms);
    std::this_thread::sleep_for(150ms);
    EXPECT_EQ(fired.value(), 1) << "a one-shot timer fired again";

    auto cancelled = TimerSource::create(queue);
    cancelled->setEventHandler([&] { fired.bump(); });
    cancelled->schedule(20ms);
    cancelled->resume();
    cancelled->cancel();
    std::this_thread::sleep_for(80ms);
    drainQueue(*queue);
    EXPECT_EQ(fired.value(), 1);
}

TEST(ManualQueue, RunsDueWorkOnTheDrainingThreadInDeadlineOrder) {
    ManualQueue queue;
    std::vector<int> order;
    queue.asyncAfter(40ms, [&] { order.push_back(3); });
    queue.async([&] {
        EXPECT_TRUE(queue.isCurrent());
        order.push_back(1);
        queue.async([&] { order.push_back(2); });  // waits for the next drain
    });
    EXPECT_FALSE(queue.isCurrent());
    EXPECT_EQ(queue.drain(), 1u);
    EXPECT_EQ(queue.pending(), 2u);
    EXPECT_EQ(queue.drain(), 1u);
    EXPECT_EQ(order, (std::vector<int>{1, 2}));

    const auto start = DispatchQueue::Clock::now();
    EXPECT_TRUE(queue.drainUntil([&] { return order.size() == 3; }, 5s));
    EXPECT_GE(DispatchQueue::Clock::now() - start, 30ms);
    EXPECT_EQ(order.back(), 3);

    // Work posted from another thread wakes a waiting drain; a bound that passes returns false.
    EXPECT_FALSE(queue.waitForWork(10ms));
    std::thread poster([&] { queue.async([&] { order.push_back(4); }); });
    EXPECT_TRUE(queue.drainUntil([&] { return order.size() == 4; }, 5s));
    poster.join();
    EXPECT_FALSE(queue.drainUntil([] { return false; }, 20ms));
}
