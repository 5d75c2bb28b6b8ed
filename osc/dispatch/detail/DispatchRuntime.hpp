#pragma once

// Internal to the dispatch layer: includes Asio, so only the layer's .cpp files include it.

#include <asio/io_context.hpp>

namespace kavrin {

/// The event loops behind the queues. Each is run by its own pool of threads, started on first
/// use and kept (deliberately never destroyed) for the life of the process, so work and timers
/// posted during static destruction never touch a dead loop.
///
/// A pool keeps a few core threads. When a pool thread waits for other queued work (a sync()
/// onto a busy queue, a synchronous filter), it says so with a BlockingScope, and the pool adds
/// a thread whenever fewer than its core count are left to run work: the work being waited for
/// always finds a thread, however many queues wait on each other. The serial pool has a single
/// core thread and is watched besides: when work has held every thread for a spell, it adds
/// one, so long-running work never holds up the rest for long. Added threads leave after a
/// spell with nothing to do, so an idle process is back to its core threads and no wake-ups.
class DispatchRuntime {
  public:
    /// Runs serial queues, readiness sources and timers.
    static asio::io_context& serialContext();
    /// Runs the global concurrent queues; blocking work there never holds up serialContext().
    static asio::io_context& globalContext();

    /// Marks the calling thread, if it belongs to a pool, as waiting for queued work while the
    /// scope lives. Harmless on any other thread.
    class BlockingScope {
      public:
        BlockingScope();
        ~BlockingScope();
        BlockingScope(const BlockingScope&) = delete;
        BlockingScope& operator=(const BlockingScope&) = delete;

      private:
        void* pool_;
    };

    /// Marks the calling thread, if it belongs to a pool, as running queued work while the
    /// scope lives: what the watch of a pool counts. Harmless on any other thread.
    class WorkScope {
      public:
        WorkScope();
        ~WorkScope();
        WorkScope(const WorkScope&) = delete;
        WorkScope& operator=(const WorkScope&) = delete;

      private:
        void* pool_;
    };
};

}  // namespace kavrin
