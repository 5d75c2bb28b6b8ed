#include "osc/dispatch/SerialQueue.hpp"

#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <unordered_map>

#include "osc/dispatch/detail/DispatchRuntime.hpp"

namespace kavrin {

namespace {

// Items a pool thread runs before yielding the thread to other queues.
constexpr int batchSize = 32;

// The queues whose work the calling thread is running, innermost first. A thread holds more
// than one when work calls sync() on another queue.
struct Frame {
    const SerialQueue* queue;
    const Frame* outer;
};
thread_local const Frame* currentFrame = nullptr;

class FrameScope {
  public:
    explicit FrameScope(const SerialQueue* queue) : frame_{queue, currentFrame} {
        currentFrame = &frame_;
    }
    ~FrameScope() { currentFrame = frame_.outer; }
    FrameScope(const FrameScope&) = delete;
    FrameScope& operator=(const FrameScope&) = delete;

  private:
    Frame frame_;
};

// Handed from the draining thread to a thread waiting in sync(): ownership of the queue.
struct Handoff {
    std::mutex mutex;
    std::condition_variable cv;
    bool owned = false;
};

}  // namespace

// The queue is "active" while a drain is posted or running or a sync() caller owns it; exactly
// one of those holds it at a time, which is what makes it serial. sync() runs its work on the
// caller's thread instead of a pool thread, so a sync never needs a free pool thread and two
// pool threads syncing at once cannot starve each other.
struct SerialQueue::Impl : std::enable_shared_from_this<Impl> {
    struct Item {
        Work work;
        std::shared_ptr<Handoff> handoff;  // set for a sync() waiting its turn
    };

    Impl(const SerialQueue* owner, std::string label, QualityOfService qos)
        : owner(owner), label(std::move(label)), qos(qos) {}

    void enqueue(Item item) {
        std::lock_guard lock(mutex);
        items.push_back(std::move(item));
        if (!active) {
            active = true;
            postDrain();
        }
    }

    void postDrain() {
        asio::post(DispatchRuntime::serialContext(),
                   [self = shared_from_this()] { self->drain(); });
    }

    void drain() {
        DispatchRuntime::WorkScope working;
        FrameScope scope(owner);
        for (int n = 0; n < batchSize; ++n) {
            Item item;
            {
                std::lock_guard lock(mutex);
                if (items.empty()) {
                    active = false;
                    return;
                }
                item = std::move(items.front());
                items.pop_front();
            }
            if (item.handoff) {
                std::lock_guard lock(item.handoff->mutex);
                item.handoff->owned = true;
                item.handoff->cv.notify_one();
                return;  // the sync() caller owns the queue now and releases it
            }
            item.work();
        }
        release();
    }

    // Gives the queue up after a batch or a sync(): posts a drain if work is waiting.
    void release() {
        std::lock_guard lock(mutex);
        if (items.empty()) {
            active = false;
        } else {
            postDrain();
        }
    }

    // Delayed work waits in deadline order under one timer, armed for the earliest: separate
    // timers with equal deadlines would fire in no particular order.
    void enqueueAt(Clock::time_point deadline, Work work) {
        std::lock_guard lock(mutex);
        delayed.emplace(deadline, std::move(work));  // equal deadlines keep posting order
        if (deadline < armedFor) arm(deadline);
    }

    // Called with mutex held.
    void arm(Clock::time_point deadline) {
        if (!timer) timer = std::make_unique<asio::steady_timer>(DispatchRuntime::serialContext());
        armedFor = deadline;
        timer->expires_at(deadline);
        timer->async_wait([self = shared_from_this(), deadline](const std::error_code& error) {
            if (!error) self->expired(deadline);
        });
    }

    void expired(Clock::time_point deadline) {
        std::lock_guard lock(mutex);
        if (deadline != armedFor) return;  // re-armed for an earlier deadline meanwhile
        armedFor = Clock::time_point::max();
        const auto due = delayed.upper_bound(Clock::now());
        for (auto it = delayed.begin(); it != due; ++it) {
            items.push_back({std::move(it->second), nullptr});
        }
        delayed.erase(delayed.begin(), due);
        if (!delayed.empty()) arm(delayed.begin()->first);
        if (!active && !items.empty()) {
            active = true;
            postDrain();
        }
    }

    const SerialQueue* owner;  // valid while any work of the queue can run: it owns the Impl
    const std::string label;
    const QualityOfService qos;
    std::mutex mutex;
    std::deque<Item> items;
    bool active = false;
    std::multimap<Clock::time_point, Work> delayed;
    std::unique_ptr<asio::steady_timer> timer;
    Clock::time_point armedFor = Clock::time_point::max();

    mutable std::mutex specificsMutex;
    std::unordered_map<const void*, void*> specifics;
};

std::shared_ptr<SerialQueue> SerialQueue::create(std::string label, QualityOfService qos) {
    return std::make_shared<SerialQueue>(Private{}, std::move(label), qos);
}

SerialQueue::SerialQueue(Private, std::string label, QualityOfService qos)
    : impl_(std::make_shared<Impl>(this, std::move(label), qos)) {}

SerialQueue::~SerialQueue() = default;

const std::string& SerialQueue::label() const {
    return impl_->label;
}

QualityOfService SerialQueue::qualityOfService() const {
    return impl_->qos;
}

// Posted work keeps the queue object alive (not just its state) so that isCurrent() and
// getSpecific() work from inside it even after the last outside reference is gone.
void SerialQueue::async(Work work) {
    impl_->enqueue({[self = shared_from_this(), work = std::move(work)] { work(); }, nullptr});
}

void SerialQueue::asyncAfter(Clock::time_point deadline, Work work) {
    impl_->enqueueAt(deadline,
                     [self = shared_from_this(), work = std::move(work)] { work(); });
}

void SerialQueue::sync(const Work& work) {
    if (isCurrent()) {
        FrameScope scope(this);
        work();
        return;
    }
    std::shared_ptr<Handoff> handoff;
    {
        std::lock_guard lock(impl_->mutex);
        if (impl_->active) {
            handoff = std::make_shared<Handoff>();
            impl_->items.push_back({nullptr, handoff});
        } else {
            impl_->active = true;
        }
    }
    if (handoff) {
        DispatchRuntime::BlockingScope waiting;
        std::unique_lock lock(handoff->mutex);
        handoff->cv.wait(lock, [&] { return handoff->owned; });
    }
    struct Release {
        Impl& impl;
        ~Release() { impl.release(); }
    } release{*impl_};
    FrameScope scope(this);
    work();
}

bool SerialQueue::isCurrent() const {
    for (const Frame* frame = currentFrame; frame; frame = frame->outer) {
        if (frame->queue == this) return true;
    }
    return false;
}

void SerialQueue::setSpecific(const void* key, void* value) {
    std::lock_guard lock(impl_->specificsMutex);
    if (value) {
        impl_->specifics[key] = value;
    } else {
        impl_->specifics.erase(key);
    }
}

void* SerialQueue::getSpecific(const void* key) {
    return currentFrame ? currentFrame->queue->specific(key) : nullptr;
}

void* SerialQueue::specific(const void* key) const {
    std::lock_guard lock(impl_->specificsMutex);
    auto found = impl_->specifics.find(key);
    return found == impl_->specifics.end() ? nullptr : found->second;
}

}  // namespace kavrin
