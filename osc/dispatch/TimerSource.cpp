#include "osc/dispatch/TimerSource.hpp"

#include <asio/steady_timer.hpp>
#include <mutex>

#include "osc/dispatch/detail/DispatchRuntime.hpp"

namespace kavrin {

// As in ReadinessSource, a generation number marks the one start whose expiry may still fire;
// restarting or cancelling bumps it, so a stale expiry already on its way does nothing.
struct TimerSource::Impl : std::enable_shared_from_this<Impl> {
    explicit Impl(std::shared_ptr<SerialQueue> queue)
        : queue(std::move(queue)), timer(DispatchRuntime::serialContext()) {}

    // Called with mutex held.
    void start() {
        ++generation;
        timer.expires_after(delay);
        timer.async_wait([self = shared_from_this(), gen = generation](const std::error_code& e) {
            if (!e) self->expired(gen);
        });
    }

    void expired(std::uint64_t gen) {
        {
            std::lock_guard lock(mutex);
            if (gen != generation || cancelled) return;
        }
        queue->async([self = shared_from_this(), gen] {
            std::function<void()> handler;
            {
                std::lock_guard lock(self->mutex);
                if (gen != self->generation || self->cancelled) return;
                ++self->generation;  // one shot
                handler = self->eventHandler;
            }
            if (handler) handler();
        });
    }

    const std::shared_ptr<SerialQueue> queue;
    std::mutex mutex;
    asio::steady_timer timer;
    std::function<void()> eventHandler;
    DispatchQueue::Clock::duration delay{};
    std::uint64_t generation = 0;
    bool resumed = false;
    bool cancelled = false;
};

std::shared_ptr<TimerSource> TimerSource::create(std::shared_ptr<SerialQueue> queue) {
    return std::make_shared<TimerSource>(Private{}, std::move(queue));
}

TimerSource::TimerSource(Private, std::shared_ptr<SerialQueue> queue)
    : impl_(std::make_shared<Impl>(std::move(queue))) {}

TimerSource::~TimerSource() {
    cancel();
}

void TimerSource::setEventHandler(std::function<void()> handler) {
    std::lock_guard lock(impl_->mutex);
    if (!impl_->cancelled) impl_->eventHandler.swap(handler);  // old one dies outside the lock
}

void TimerSource::schedule(DispatchQueue::Clock::duration after) {
    std::lock_guard lock(impl_->mutex);
    if (impl_->cancelled) return;
    impl_->delay = after;
    if (impl_->resumed) impl_->start();
}

void TimerSource::resume() {
    std::lock_guard lock(impl_->mutex);
    if (impl_->cancelled || impl_->resumed) return;
    impl_->resumed = true;
    impl_->start();
}

void TimerSource::cancel() {
    std::function<void()> handler;  // destroyed outside the lock: its captures may call back
    std::lock_guard lock(impl_->mutex);
    if (impl_->cancelled) return;
    impl_->cancelled = true;
    ++impl_->generation;
    impl_->timer.cancel();
    handler.swap(impl_->eventHandler);
}

}  // namespace kavrin
