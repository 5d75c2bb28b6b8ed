#include "osc/dispatch/ReadinessSource.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <asio/posix/stream_descriptor.hpp>
#include <cerrno>
#include <mutex>
#include <system_error>

#include "osc/dispatch/detail/DispatchRuntime.hpp"

namespace kavrin {

// Each source waits on its own duplicate of the descriptor: the event loop registers a descriptor
// once, and a socket has a read and a write source on the same one. The duplicate is closed at
// cancel, so the caller's descriptor is the only one left open for its cancel handler to close.
//
// A generation number identifies the one wait that may be outstanding; a completion from an
// older wait (cancelled by suspend or cancel) is ignored. At most one event is on the queue at a
// time. When the descriptor is still ready after the handler returns, the next event is posted
// straight to the queue: under load that saves a trip through the event loop per event.
struct ReadinessSource::Impl : std::enable_shared_from_this<Impl> {
    Impl(int duplicate, Kind kind, std::shared_ptr<SerialQueue> queue)
        : kind(kind), queue(std::move(queue)), descriptor(DispatchRuntime::serialContext()) {
        descriptor.assign(duplicate);
    }

    // Called with mutex held.
    void startWait() {
        if (waiting || eventPosted || !resumed || cancelled) return;
        waiting = true;
        const auto wait = kind == Kind::read ? asio::posix::stream_descriptor::wait_read
                                             : asio::posix::stream_descriptor::wait_write;
        descriptor.async_wait(wait, [self = shared_from_this(), gen = generation](
                                        const std::error_code& error) { self->ready(gen, error); });
    }

    // Called with mutex held.
    void stopWait() {
        if (!waiting) return;
        waiting = false;
        ++generation;
        std::error_code ignored;
        descriptor.cancel(ignored);
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
        postEvent();
    }

    // Called with mutex held.
    void postEvent() {
        if (eventPosted) return;
        eventPosted = true;
        queue->async([self = shared_from_this()] { self->deliver(); });
    }

    bool readyNow() {
        pollfd entry{descriptor.native_handle(),
                     static_cast<short>(kind == Kind::read ? POLLIN : POLLOUT), 0};
        return ::poll(&entry, 1, 0) == 1;
    }

    // On the queue.
    void deliver() {
        std::function<void()> handler;
        {
            std::lock_guard lock(mutex);
            eventPosted = false;
            if (cancelled || !resumed) return;
            if (kind == Kind::read) {
                int count = 0;
                available = ::ioctl(descriptor.native_handle(), FIONREAD, &count) == 0
                                ? static_cast<std::size_t>(count)
                                : 0;
            }
            handler = eventHandler;
        }
        if (handler) handler();
        std::lock_guard lock(mutex);
        if (cancelled || !resumed || waiting) return;
        if (readyNow()) {
            postEvent();
        } else {
            startWait();
        }
    }

    const Kind kind;
    const std::shared_ptr<SerialQueue> queue;
    mutable std::mutex mutex;
    asio::posix::stream_descriptor descriptor;
    std::function<void()> eventHandler;
    std::function<void()> cancelHandler;
    std::uint64_t generation = 0;
    std::size_t available = 0;
    bool waiting = false;
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
        impl_->cancelled = true;
        impl_->stopWait();
        std::error_code ignored;
        impl_->descriptor.close(ignored);
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
        impl_->cancelled = true;
        impl_->stopWait();
        std::error_code ignored;
        impl_->descriptor.close(ignored);
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

std::size_t ReadinessSource::bytesAvailable() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->available;
}

}  // namespace kavrin
