#pragma once

#include <memory>
#include <string>

#include "osc/dispatch/DispatchQueue.hpp"

namespace kavrin {

/// A priority hint for a queue. It is recorded and reported but does not change scheduling:
/// all serial queues share one small pool of threads.
enum class QualityOfService { background, utility, defaultQoS, userInitiated, userInteractive };

/// A serial queue: work items run one at a time, in the order they were posted, on a shared pool
/// of threads kept for the life of the process. Delayed work runs in deadline order, and work
/// with equal deadlines in the order it was posted.
///
/// Thread safety: every operation may be called from any thread. Work runs on a pool thread,
/// except sync(), which runs its work on the calling thread once the queue is free.
class SerialQueue final : public DispatchQueue, public std::enable_shared_from_this<SerialQueue> {
    struct Private {};

  public:
    static std::shared_ptr<SerialQueue> create(std::string label,
                                               QualityOfService qos = QualityOfService::defaultQoS);
    SerialQueue(Private, std::string label, QualityOfService qos);
    ~SerialQueue() override;
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    const std::string& label() const;
    QualityOfService qualityOfService() const;

    void async(Work work) override;
    using DispatchQueue::asyncAfter;
    void asyncAfter(Clock::time_point deadline, Work work) override;

    /// Runs work on this queue and waits for it. The work runs on the calling thread: at once when
    /// the calling thread already holds this queue (no deadlock), otherwise after the work posted
    /// before it. An exception thrown by the work propagates to the caller.
    void sync(const Work& work) override;

    /// True when the calling thread is running work of this queue, including from inside a
    /// sync() onto another queue made by such work.
    bool isCurrent() const override;

    /// Queue-specific values. A key is the address of any static object; a nullptr value removes
    /// the key. Marking another queue with the same key makes getSpecific(key) answer the same
    /// while that queue runs.
    void setSpecific(const void* key, void* value);
    /// The value of key on the queue whose work is running on this thread, nullptr if none.
    static void* getSpecific(const void* key);
    /// The value of key on this queue, nullptr if none. (Named apart from the static getSpecific:
    /// C++ cannot overload a static and a member function on the same parameters.)
    void* specific(const void* key) const;

  private:
    struct Impl;
    std::shared_ptr<Impl> impl_;
};

}  // namespace kavrin
