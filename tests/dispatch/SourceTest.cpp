#include <sys/socket.h>
#include <unistd.h>

#include "osc/dispatch/ManualQueue.hpp"
#include "osc/dispatch/ReadinessSource.hpp"
#include "osc/dispatch/TimerSource.hpp"
#include "tests/Recording.hpp"

using namespace kavrin;
using namespace std::chrono_literals;
using test::Log;

namespace {

// A pair of connected datagram sockets; the first is the sources', which their cancel handlers
// close, the second the test's.
struct SocketPair {
    SocketPair() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0, fds), 0); }
    ~SocketPair() { ::close(fds[1]); }
    int fds[2] = {-1, -1};
};

}  // namespace

TEST(ReadinessSource, ReadEventsFollowSuspendResumeAndCancelRunsOnce) {
    SocketPair pair;
    const int fd = pair.fds[0];
    auto queue = SerialQueue::create("source");
    auto source = ReadinessSource::create(fd, ReadinessSource::Kind::read, queue);
    Log<std::size_t> events(queue, 5s);  // the bytes available at each
    Log<int> closes(queue, 5s);
    source->setEventHandler([&] {
        events.add(source->bytesAvailable());
        char buffer[64];
        (void)::recv(fd, buffer, sizeof buffer, 0);  // consume, or it stays readable
    });
    // The source left our descriptor open.
    source->setCancelHandler([&] { closes.add(::close(fd)); });

    // Created suspended: data waiting does not raise an event.
    ASSERT_EQ(::send(pair.fds[1], "abc", 3, 0), 3);
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(events.size(), 0u);

    source->resume();
    ASSERT_TRUE(events.waitForSize(1));
    queue->sync([] {});

    source->suspend();
    queue->sync([] {});
    ASSERT_EQ(::send(pair.fds[1], "defg", 4, 0), 4);
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(events.size(), 1u) << "an event arrived while suspended";

    source->resume();
    ASSERT_TRUE(events.waitForSize(2));
    queue->sync([] {});

    source->suspend();
    source->cancel();
    source->cancel();
    EXPECT_TRUE(source->isCancelled());
    ASSERT_TRUE(closes.waitForSize(1));
    source->resume();  // no effect after cancel
    std::this_thread::sleep_for(50ms);
    queue->sync([] {});
    EXPECT_EQ(closes.entries(), std::vector<int>{0});
    EXPECT_EQ(events.entries(), (std::vector<std::size_t>{3, 4}));
    EXPECT_TRUE(events.allOnDelegateQueue && closes.allOnDelegateQueue);
}

TEST(ReadinessSource, ReadAndWriteSourcesShareADescriptor) {
    SocketPair pair;
    const int fd = pair.fds[0];
    auto queue = SerialQueue::create("pair");
    auto reader = ReadinessSource::create(fd, ReadinessSource::Kind::read, queue);
    auto writer = ReadinessSource::create(fd, ReadinessSource::Kind::write, queue);
    Log<std::string> events(queue, 5s);
    writer->setEventHandler([&] {
        writer->suspend();  // writable stays true: one event is enough
        events.add("written");
    });
    reader->setEventHandler([&] {
        char c;
        (void)::recv(fd, &c, 1, 0);
        events.add("read");
    });
    // The last of the two cancel handlers closes the descriptor.
    auto remaining = std::make_shared<int>(2);
    auto closeLast = [&, remaining] {
        if (--*remaining == 0) events.add("closed " + std::to_string(::close(fd)));
    };
    reader->setCancelHandler(closeLast);
    writer->setCancelHandler(closeLast);
    writer->resume();
    reader->resume();
    ASSERT_TRUE(events.waitForSize(1));
    ASSERT_EQ(::send(pair.fds[1], "x", 1, 0), 1);
    ASSERT_TRUE(events.waitForSize(2));
    writer->cancel();
    reader->cancel();
    ASSERT_TRUE(events.waitForSize(3));
    queue->sync([] {});
    EXPECT_EQ(events.entries(), (std::vector<std::string>{"written", "read", "closed 0"}));
}

// A flood is read a pause at a time, losing nothing; a source cancelled while pausing still
// finishes once.
TEST(ReadinessSource, AFloodIsReadAfterEachPauseAndCancelEndsAPause) {
    SocketPair pair;
    const int fd = pair.fds[0];
    ReadinessSource::setFloodInterval(300ms);  // far longer than the sends between events take
    auto queue = SerialQueue::create("flood");
    auto source = ReadinessSource::create(fd, ReadinessSource::Kind::read, queue);
    Log<int> perEvent(queue, 5s);  // datagrams each event read
    Log<int> closes(queue, 5s);
    source->setEventHandler([&] {
        char c;
        int read = 0;
        while (::recv(fd, &c, 1, 0) == 1) ++read;
        perEvent.add(read);
    });
    source->setCancelHandler([&] { closes.add(::close(fd)); });
    source->resume();
    // The second datagram comes soon after the first was read: a flood, so the source pauses
    // after reading it, and the next two come in that pause and are read by one event.
    for (std::size_t n = 1; n <= 2; ++n) {
        ASSERT_EQ(::send(pair.fds[1], "x", 1, 0), 1);
        ASSERT_TRUE(perEvent.waitForSize(n));
        queue->sync([] {});  // the event is over: the source waits, or pauses
    }
    ASSERT_EQ(::send(pair.fds[1], "y", 1, 0), 1);
    ASSERT_EQ(::send(pair.fds[1], "z", 1, 0), 1);
    ASSERT_TRUE(perEvent.waitForSize(3));
    source->cancel();  // in the pause that follows
    ASSERT_TRUE(closes.waitForSize(1));
    queue->sync([] {});
    EXPECT_EQ(perEvent.entries(), (std::vector<int>{1, 1, 2}));
    EXPECT_EQ(closes.entries(), std::vector<int>{0});
    ReadinessSource::setFloodInterval(0us);
}

TEST(TimerSource, FiresOnceAfterItsDelayAndNotAfterCancel) {
    auto queue = SerialQueue::create("timer");
    auto timer = TimerSource::create(queue);
    Log<DispatchQueue::Clock::time_point> fired(queue, 5s);
    timer->setEventHandler([&] { fired.add(DispatchQueue::Clock::now()); });
    timer->schedule(60ms);
    std::this_thread::sleep_for(80ms);
    EXPECT_EQ(fired.size(), 0u) << "fired before resume";
    const auto start = DispatchQueue::Clock::now();
    timer->resume();
    ASSERT_TRUE(fired.waitForSize(1));
    EXPECT_GE(fired.entries()[0] - start, 60ms);
    EXPECT_TRUE(fired.allOnDelegateQueue);
    std::this_thread::sleep_for(150ms);
    EXPECT_EQ(fired.size(), 1u) << "a one-shot timer fired again";

    auto cancelled = TimerSource::create(queue);
    cancelled->setEventHandler([&] { fired.add({}); });
    cancelled->schedule(20ms);
    cancelled->resume();
    cancelled->cancel();
    std::this_thread::sleep_for(80ms);
    queue->sync([] {});
    EXPECT_EQ(fired.size(), 1u);
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
