#include "osc/dispatch/ReadinessSource.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <system_error>
#include <utility>

#include "osc/dispatch/detail/DispatchRuntime.hpp"

namespace kavrin {

namespace {

std::atomic<std::chrono::microseconds::rep> floodInterval{0};

}  // namespace

// Each source waits on its own duplicate of the descriptor: the event loop registers a descriptor
// once, and a socket has a read and a write source on the same one. The duplicate is closed at
// cancel, so the caller's descriptor is the only one left open for its cancel handler to close.
// The loop watches a descriptor edge-triggered for reading and writing alike, whatever the wait,
// so a source joins it at its first wait and leaves it to pause: a socket's write source that
// never waited would otherwise wake the loop for every datagram that arrives.
//
// A generation number identifies the one wait that may be outstanding; a completion from an
// older wait (cancelled by suspend or cancel) is ignored. At most one event is on the queue at a
// time. When the descriptor is still ready after the handler returns, the next event is posted
// straight to the queue: under load that saves a trip through the event loop per event.
//
// With a flood interval set, a read source that found its descriptor ready again within the
// interval of draining it is in a flood: once drained, it pauses for the interval on a timer
// instead of waiting on the descriptor, then reads what came meanwhile. The pause shares the
// generation of the wait, and only one of them is outstanding at a time.
struct ReadinessSource::Impl : std::enable_shared_from_this<Impl> {
    Impl(int duplicate, Kind kind, std::shared_ptr<SerialQueue> queue)
        : kind(kind),
          queue(std::move(queue)),
          fd(duplicate),
          watched(DispatchRuntime::serialContext()) {}

    // Called with mutex held.
    void startWait() {
        if (waiting || pausing || eventPosted || !resumed || cancelled) return;
        waiting = true;
        if (kind == Kind::read && floodInterval.load(std::memory_order_relaxed) > 0) {
            drainedAt = std::chrono::steady_clock::now();
        }
        // A descriptor the loop cannot take fails the wait, which ends the waiting.
        if (!watched.is_open()) {
            std::error_code error;
            watched.assign(fd, error);
        }
        const auto wait = kind == Kind::read ? asio::posix::stream_descriptor::wait_read
                                             : asio::posix::stream_descriptor::wait_write;
        watched.async_wait(wait, [self = shared_from_this(), gen = generation](
                                     const std::error_code& error) { self->ready(gen, error); });
    }

    // Called with mutex held.
    void stopWait() {
        if (!waiting && !pausing) return;
        ++generation;
        if (waiting) {
            std::error_code ignored;
            watched.cancel(ignored);
        }
        if (pausing) pause->cancel();
        waiting = pausing = false;
    }

    // Called with mutex held: out of the event loop until the next wait.
    void leaveLoop() {
        stopWait();
        if (watched.is_open()) watched.release();
    }

    // Called with mutex held, the descriptor drained: in a flood, pauses for the interval;
    // otherwise waits for the descriptor.
    void waitForMore() {
        const std::chrono::microseconds interval(floodInterval.load(std::memory_order_relaxed));
        if (!flooding || interval.count() <= 0) {
            startWait();
            return;
        }
        leaveLoop();
        if (!pause) pause = std::make_unique<asio::steady_timer>(DispatchRuntime::serialContext());
        pausing = true;
        pause->expires_after(interval);
        pause->async_wait([self = shared_from_this(), gen = generation](
                              const std::error_code& error) { self->paused(gen, error); });
    }

    // On an event-loop thread. A flood goes on while each pause finds something to read.
    void paused(std::uint64_t gen, const std::error_code& error) {
        std::lock_guard lock(mutex);
        if (gen != generation) return;
        pausing = false;
        if (cancelled || !resumed || error) return;
        if (readyNow()) {
            postEvent();
        } else {
            flooding = false;
            startWait();
        }
    }

    // On an event-loop thread: hand the event to the queue.
    void ready(std::uint64_t gen, const std::error_code& error) {
        std::lock_guard lock(mutex);
        if (gen != generation) return;
        waiting = false;
        if (cancelled || !resumed) return;
        if (error) {
            // The loop could not watch the descriptor (it was closed under us): wait no more.
            return;
        }
        // The loop may report an edge that an earlier event has consumed since, as when the
        // descriptor joined the loop with data waiting: such a report waits again.
        if (!readyNow()) {
            startWait();
            return;
        }
        const std::chrono::microseconds interval(floodInterval.load(std::memory_order_relaxed));
        flooding = kind == Kind::read && interval.count() > 0 &&
                   std::chrono::steady_clock::now() - drainedAt < interval;
        postEvent();
    }

    // Called with mutex held.
    void postEvent() {
        if (eventPosted) return;
        eventPosted = true;
        queue->async([self = shared_from_this()] { self->deliver(); });
    }

    bool readyNow() {
        pollfd entry{fd, static_cast<short>(kind == Kind::read ? POLLIN : POLLOUT), 0};
        return ::poll(&entry, 1, 0) == 1;
    }

    // On the queue.
    void deliver() {
        std::function<void()> handler;
        {
            std::lock_guard lock(mutex);
            eventPosted = false;
            if (cancelled || !resumed) return;
            handler = eventHandler;
        }
        if (handler) handler();
        std::lock_guard lock(mutex);
        if (cancelled || !resumed || waiting || pausing) return;
        if (readyNow()) {
            postEvent();
        } else {
            waitForMore();
        }
    }

    // Called with mutex held: for good.
    void close() {
        cancelled = true;
        leaveLoop();
        ::close(fd);
    }

    const Kind kind;
    const std::shared_ptr<SerialQueue> queue;
    const int fd;  // the duplicate, closed by close()
    mutable std::mutex mutex;
    asio::posix::stream_descriptor watched;  // holds fd while the loop watches it
    std::function<void()> eventHandler;
    std::function<void()> cancelHandler;
    std::unique_ptr<asio::steady_timer> pause;        // made at the first flood
    std::chrono::steady_clock::time_point drainedAt;  // when the last wait began
    std::uint64_t generation = 0;
    bool waiting = false;
    bool pausing = false;
    bool flooding = false;
    bool eventPosted = false;
    bool resumed = false;
    bool cancelled = false;
};

std::shared_ptr<ReadinessSource> ReadinessSource::create(int fd, Kind kind,
                                                         std::shared_ptr<SerialQueue> queue) {
    return std::make_shared<ReadinessSource>(Private{}, fd, kind, std::move(queue));
}

ReadinessSource::ReadinessSource(Private, int fd, Kind kind, std::shared_ptr<SerialQueue> queue) {
    const int duplicate = ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (duplicate < 0) throw std::system_error(errno, std::generic_category(), "dup");
    try {
        impl_ = std::make_shared<Impl>(duplicate, kind, std::move(queue));
    } catch (...) {
        ::close(duplicate);
        throw;
    }
}

// A source dropped without cancel() stops waiting and closes its duplicate; no handler runs.
// Handlers are always destroyed outside the lock: what they capture may call back into us.
ReadinessSource::~ReadinessSource() {
    std::function<void()> event, cancelled;
    std::lock_guard lock(impl_->mutex);
    if (!impl_->cancelled) {
        impl_->close();
        event.swap(impl_->eventHandler);
        cancelled.swap(impl_->cancelHandler);
    }
}

void ReadinessSource::setEventHandler(std::function<void()> handler) {
    std::lock_guard lock(impl_->mutex);
    if (!impl_->cancelled) impl_->eventHandler.swap(handler);
}

void ReadinessSource::setCancelHandler(std::function<void()> handler) {
    std::lock_guard lock(impl_->mutex);
    if (!impl_->cancelled) impl_->cancelHandler.swap(handler);
}

void ReadinessSource::resume() {
    std::lock_guard lock(impl_->mutex);
    impl_->resumed = true;
    impl_->startWait();
}

void ReadinessSource::suspend() {
    std::lock_guard lock(impl_->mutex);
    impl_->resumed = false;
    impl_->stopWait();
}

void ReadinessSource::cancel() {
    {
        std::lock_guard lock(impl_->mutex);
        if (impl_->cancelled) return;
        impl_->close();
    }
    // Posted after any event already on the queue, so it runs after the last event handler.
    impl_->queue->async([impl = impl_] {
        std::function<void()> handler, event;
        {
            std::lock_guard lock(impl->mutex);
            handler.swap(impl->cancelHandler);
            event.swap(impl->eventHandler);
        }
        if (handler) handler();
    });
}

bool ReadinessSource::isCancelled() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->cancelled;
}

// Asked for, not taken with every event: most handlers just read until the call would block.
std::size_t ReadinessSource::bytesAvailable() const {
    if (impl_->kind != Kind::read) return 0;
    int count = 0;
    return ::ioctl(impl_->fd, FIONREAD, &count) == 0 ? static_cast<std::size_t>(count) : 0;
}

void ReadinessSource::setFloodInterval(std::chrono::microseconds interval) {
    floodInterval.store(interval.count(), std::memory_order_relaxed);
}

}  // namespace kavrin
