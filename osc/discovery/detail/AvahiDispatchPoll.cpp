#include "osc/discovery/detail/AvahiDispatchPoll.hpp"

#include <sys/time.h>

#include <chrono>
#include <cstdint>

#include "osc/dispatch/ReadinessSource.hpp"

// Avahi declares these types and leaves their definition to the provider of the poll API.
struct AvahiWatch {
    int fd = -1;
    AvahiWatchEvent wanted{};
    AvahiWatchEvent happened{};  // during a callback only, as watch_get_events reports it
    AvahiWatchCallback callback = nullptr;
    void* userdata = nullptr;
    std::shared_ptr<kavrin::ReadinessSource> reader, writer;
    kavrin::detail::AvahiDispatchPoll* poll = nullptr;
};

struct AvahiTimeout {
    AvahiTimeoutCallback callback = nullptr;
    void* userdata = nullptr;
    std::uint64_t generation = 0;  // a new deadline or a disabling makes earlier work stale
    kavrin::detail::AvahiDispatchPoll* poll = nullptr;
};

namespace kavrin::detail {

namespace {

AvahiDispatchPoll& owner(const AvahiPoll* api) {
    return *static_cast<AvahiDispatchPoll*>(api->userdata);
}

// How far ahead an absolute time of the wall clock (Avahi's timeouts) lies, on the steady one.
DispatchQueue::Clock::duration untilWallTime(const timeval& when) {
    timeval now{};
    gettimeofday(&now, nullptr);
    const auto micros = (std::int64_t{when.tv_sec} - now.tv_sec) * 1'000'000 +
                        (std::int64_t{when.tv_usec} - now.tv_usec);
    return std::chrono::microseconds(micros > 0 ? micros : 0);
}

}  // namespace

struct AvahiPollCalls {
    static std::shared_ptr<ReadinessSource> source(const std::shared_ptr<AvahiWatch>& watch,
                                                   ReadinessSource::Kind kind,
                                                   const std::shared_ptr<SerialQueue>& queue) {
        auto source = ReadinessSource::create(watch->fd, kind, queue);
        const auto event = kind == ReadinessSource::Kind::read ? AVAHI_WATCH_IN : AVAHI_WATCH_OUT;
        source->setEventHandler([weak = std::weak_ptr<AvahiWatch>(watch), event] {
            const auto watch = weak.lock();
            if (!watch) return;
            watch->happened = event;
            watch->callback(watch.get(), watch->fd, event, watch->userdata);
            // The callback may have freed the watch; `watch` keeps it alive until here.
            watch->happened = AvahiWatchEvent{};
        });
        return source;
    }

    static void apply(AvahiWatch* watch) {
        for (auto [source, event] : {std::pair{watch->reader.get(), AVAHI_WATCH_IN},
                                     std::pair{watch->writer.get(), AVAHI_WATCH_OUT}}) {
            if (watch->wanted & event) {
                source->resume();
            } else {
                source->suspend();
            }
        }
    }

    static AvahiWatch* watchNew(const AvahiPoll* api, int fd, AvahiWatchEvent event,
                                AvahiWatchCallback callback, void* userdata) {
        auto& poll = owner(api);
        auto watch = std::make_shared<AvahiWatch>();
        watch->fd = fd;
        watch->wanted = event;
        watch->callback = callback;
        watch->userdata = userdata;
        watch->poll = &poll;
        try {
            watch->reader = source(watch, ReadinessSource::Kind::read, poll.queue_);
            watch->writer = source(watch, ReadinessSource::Kind::write, poll.queue_);
        } catch (const std::system_error&) {
            return nullptr;  // Avahi takes a null watch as a failure
        }
        apply(watch.get());
        poll.watches_.emplace(watch.get(), watch);
        return watch.get();
    }

    static void watchUpdate(AvahiWatch* watch, AvahiWatchEvent event) {
        watch->wanted = event;
        apply(watch);
    }

    static AvahiWatchEvent watchGetEvents(AvahiWatch* watch) { return watch->happened; }

    static void watchFree(AvahiWatch* watch) {
        watch->reader->cancel();
        watch->writer->cancel();
        watch->poll->watches_.erase(watch);
    }

    static AvahiTimeout* timeoutNew(const AvahiPoll* api, const timeval* when,
                                    AvahiTimeoutCallback callback, void* userdata) {
        auto& poll = owner(api);
        auto timeout = std::make_shared<AvahiTimeout>();
        timeout->callback = callback;
        timeout->userdata = userdata;
        timeout->poll = &poll;
        poll.timeouts_.emplace(timeout.get(), timeout);
        timeoutUpdate(timeout.get(), when);
        return timeout.get();
    }

    static void timeoutUpdate(AvahiTimeout* timeout, const timeval* when) {
        const auto generation = ++timeout->generation;
        if (!when) return;
        auto& poll = *timeout->poll;
        std::weak_ptr<AvahiTimeout> weak = poll.timeouts_.at(timeout);
        poll.queue_->asyncAfter(untilWallTime(*when), [weak, generation] {
            const auto timeout = weak.lock();
            if (!timeout || timeout->generation != generation) return;
            ++timeout->generation;  // fired: disabled until updated
            timeout->callback(timeout.get(), timeout->userdata);
        });
    }

    static void timeoutFree(AvahiTimeout* timeout) { timeout->poll->timeouts_.erase(timeout); }
};


AvahiDispatchPoll::AvahiDispatchPoll(std::shared_ptr<SerialQueue> queue) : queue_(std::move(queue)) {
    api_.userdata = this;
    api_.watch_new = AvahiPollCalls::watchNew;
    api_.watch_update = AvahiPollCalls::watchUpdate;
    api_.watch_get_events = AvahiPollCalls::watchGetEvents;
    api_.watch_free = AvahiPollCalls::watchFree;
    api_.timeout_new = AvahiPollCalls::timeoutNew;
    api_.timeout_update = AvahiPollCalls::timeoutUpdate;
    api_.timeout_free = AvahiPollCalls::timeoutFree;
}

AvahiDispatchPoll::~AvahiDispatchPoll() {
    for (auto& [key, watch] : watches_) {
        watch->reader->cancel();
        watch->writer->cancel();
    }
}

}  // namespace kavrin::detail
