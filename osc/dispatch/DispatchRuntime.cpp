#include "osc/dispatch/DispatchRuntime.hpp"

#include <asio/executor_work_guard.hpp>
#include <thread>

namespace kavrin {

namespace {

struct Pool {
    explicit Pool(unsigned threads) {
        for (unsigned i = 0; i < threads; ++i) {
            // Detached: the pool outlives main(); its threads end with the process.
            std::thread([this] { context.run(); }).detach();
        }
    }
    asio::io_context context;
    asio::executor_work_guard<asio::io_context::executor_type> guard{context.get_executor()};
};

}  // namespace

asio::io_context& DispatchRuntime::serialContext() {
    // Two threads: the serial queues only do short, non-blocking work.
    static Pool* const pool = new Pool(2);
    return pool->context;
}

asio::io_context& DispatchRuntime::globalContext() {
    // More threads than cores: this pool mostly waits in blocking lookups.
    static Pool* const pool = new Pool(4);
    return pool->context;
}

}  // namespace kavrin
