#include "osc/dispatch/detail/DispatchRuntime.hpp"

#include <asio/executor_work_guard.hpp>
#include <chrono>
#include <mutex>
#include <system_error>
#include <thread>

namespace kavrin {

namespace {

class Pool;
thread_local Pool* currentPool = nullptr;

class Pool {
  public:
    explicit Pool(unsigned coreThreads) : core_(coreThreads) {
        std::lock_guard lock(mutex_);
        for (unsigned i = 0; i < coreThreads; ++i) spawn(true);
    }

    asio::io_context& context() { return context_; }

    void enterBlocking() {
        std::lock_guard lock(mutex_);
        ++blocked_;
        if (threads_ - blocked_ < core_) spawn(false);
    }

    void leaveBlocking() {
        std::lock_guard lock(mutex_);
        --blocked_;
    }

  private:
    // Long enough that a burst of waits does not start and stop threads over and over.
    static constexpr std::chrono::seconds idleBeforeLeaving{10};

    // Called with mutex_ held. A pool that cannot start a thread goes on with those it has.
    void spawn(bool core) {
        try {
            // Detached: the pool outlives main(); its threads end with the process.
            std::thread([this, core] { run(core); }).detach();
            ++threads_;
        } catch (const std::system_error&) {
        }
    }

    void run(bool core) {
        currentPool = this;
        if (core) {
            context_.run();
            return;
        }
        for (;;) {
            if (context_.run_one_for(idleBeforeLeaving) > 0) continue;
            std::lock_guard lock(mutex_);
            if (threads_ - blocked_ > core_) {
                --threads_;
                return;
            }
        }
    }

    asio::io_context context_;
    asio::executor_work_guard<asio::io_context::executor_type> guard_{context_.get_executor()};
    const unsigned core_;
    std::mutex mutex_;
    unsigned threads_ = 0;  // guarded by mutex_, as is blocked_
    unsigned blocked_ = 0;
};

}  // namespace

asio::io_context& DispatchRuntime::serialContext() {
    // Two core threads: the serial queues only do short, non-blocking work.
    static Pool* const pool = new Pool(2);
    return pool->context();
}

asio::io_context& DispatchRuntime::globalContext() {
    // More threads than cores: this pool mostly waits in blocking lookups.
    static Pool* const pool = new Pool(4);
    return pool->context();
}

DispatchRuntime::BlockingScope::BlockingScope() : pool_(currentPool) {
    if (pool_) static_cast<Pool*>(pool_)->enterBlocking();
}

DispatchRuntime::BlockingScope::~BlockingScope() {
    if (pool_) static_cast<Pool*>(pool_)->leaveBlocking();
}

}  // namespace kavrin
