#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>

#include "osc/dispatch/SerialQueue.hpp"

namespace kavrin {

/// Reports read or write readiness of a descriptor by running an event handler on a serial queue.
/// It starts suspended; while suspended no wait is outstanding, so an idle descriptor costs no
/// wake-ups. Readiness is level-triggered: while resumed and ready, the handler runs again after
/// each return. The source never closes the caller's descriptor (it waits on a private duplicate);
/// the caller closes it, typically in the cancel handler.
///
/// Thread safety: every operation may be called from any thread. Handlers run on the queue.
class ReadinessSource : public std::enable_shared_from_this<ReadinessSource> {
    struct Private {};

  public:
    enum class Kind { read, write };

    /// Throws std::system_error when the descriptor cannot be watched.
    static std::shared_ptr<ReadinessSource> create(int fd, Kind kind,
                                                   std::shared_ptr<SerialQueue> queue);
    ReadinessSource(Private, int fd, Kind kind, std::shared_ptr<SerialQueue> queue);
    ~ReadinessSource();
    ReadinessSource(const ReadinessSource&) = delete;
    ReadinessSource& operator=(const ReadinessSource&) = delete;

    void setEventHandler(std::function<void()> handler);
    void setCancelHandler(std::function<void()> handler);

    /// Starts or restarts delivery. Not counted: one resume undoes any number of suspends.
    void resume();
    /// Stops delivery; an event already posted but not yet run is dropped.
    void suspend();
    /// Stops delivery for good. The cancel handler then runs once on the queue, after any event
    /// handler in flight; a suspended source can be cancelled. Both handlers are dropped after.
    void cancel();
    bool isCancelled() const;

    /// For read sources: the bytes readable now (FIONREAD); 0 for write sources.
    std::size_t bytesAvailable() const;

    /// For the whole process, from any thread: while a read source's descriptor turns ready
    /// again sooner than `interval` after its handler drained it, the source waits out the
    /// interval before the next event instead of waking for each arrival, so a steady flood
    /// costs one wake-up per interval rather than one per datagram or two, for at most
    /// `interval` more latency. A backlog is still read without pause. Zero, the default,
    /// turns it off: then a request and its reply never wait for a rhythm.
    static void setFloodInterval(std::chrono::microseconds interval);

  private:
    struct Impl;
    std::shared_ptr<Impl> impl_;
};

}  // namespace kavrin
