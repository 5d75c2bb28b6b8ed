#pragma once

// Internal to the dispatch layer: includes Asio, so only the layer's .cpp files include it.

#include <asio/io_context.hpp>

namespace kavrin {

/// The event loops behind the queues. Each is run by its own small pool of threads, started on
/// first use and kept (deliberately never destroyed) for the life of the process, so work and
/// timers posted during static destruction never touch a dead loop.
class DispatchRuntime {
  public:
    /// Runs serial queues, readiness sources and timers.
    static asio::io_context& serialContext();
    /// Runs the global concurrent queues; blocking work there never holds up serialContext().
    static asio::io_context& globalContext();
};

}  // namespace kavrin
