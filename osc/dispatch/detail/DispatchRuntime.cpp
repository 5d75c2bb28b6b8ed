#include "osc/dispatch/detail/DispatchRuntime.hpp"

#include <asio/executor_work_guard.hpp>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <thread>

namespace kavrin {

namespace {

class Pool;
thread_local Pool* currentPool = nullptr;

class Pool {
  public:
    // A watched pool adds a thread whenever work has held every thread for a spell, so that
    // long-running work never starves the rest: then one core thread is enough, and a datagram's
    // hops between queues stay on it instead of waking another thread at each.
    Pool(unsigned coreThreads, bool watched) : core_(coreThreads) {
        std::lock_guard lock(mutex_);
        for (unsigned i = 0; i < coreThreads; ++i) spawn(true);
        if (watched) {
            try {
                std::thread([this] { watch(); }).detach();
            } catch (const std::system_error&) {
            }
        }
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

    void beginWork() {
        running_.fetch_add(1);
        if (watcherAsleep_.load()) {
            std::lock_guard lock(mutex_);
            watcherAsleep_.store(false);
            wakeWatcher_.notify_one();
        }
    }

    void endWork() {
        finished_.fetch_add(1);
        running_.fetch_sub(1);
    }

  private:
    // Long enough that a burst of waits does not start and stop threads over and over.
    static constexpr std::chrono::seconds idleBeforeLeaving{10};
    // How long work may hold every thread before the pool adds one, and how many quiet looks
    // the watcher takes before it sleeps until work starts again.
    static constexpr std::chrono::milliseconds stallTime{50};
    static constexpr int quietLooksBeforeSleeping = 10;

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

    // Looks every stallTime while there is work: when none finished since the last look and
    // no thread is free, adds one. Asleep while the pool is quiet, so an idle process has no
    // wake-ups.
    void watch() {
        auto lastFinished = finished_.load();
        int quietLooks = 0;
        for (;;) {
            std::this_thread::sleep_for(stallTime);
            const auto running = running_.load();
            const auto finished = finished_.load();
            if (running > 0) {
                quietLooks = 0;
                if (finished == lastFinished) {
                    std::lock_guard lock(mutex_);
                    if (running >= threads_) spawn(false);
                }
            } else if (++quietLooks >= quietLooksBeforeSleeping) {
                sleepUntilWorkBegins();
                quietLooks = 0;
            }
            lastFinished = finished_.load();
        }
    }

    void sleepUntilWorkBegins() {
        std::unique_lock lock(mutex_);
        watcherAsleep_.store(true);
        // Work that began before the flag was set did not see it.
        if (running_.load() == 0) {
            wakeWatcher_.wait(lock, [this] { return !watcherAsleep_.load(); });
        }
        watcherAsleep_.store(false);
    }

    asio::io_context context_;
    asio::executor_work_guard<asio::io_context::executor_type> guard_{context_.get_executor()};
    const unsigned core_;
    std::mutex mutex_;
    unsigned threads_ = 0;  // guarded by mutex_, as is blocked_
    unsigned blocked_ = 0;
    std::atomic<unsigned> running_{0};  // work begun and not yet ended
    std::atomic<std::uint64_t> finished_{0};
    std::atomic<bool> watcherAsleep_{false};
    std::condition_variable wakeWatcher_;
};

}  // namespace

asio::io_context& DispatchRuntime::serialContext() {
    // One core thread, watched: the serial queues mostly do short, non-blocking work.
    static Pool* const pool = new Pool(1, true);
    return pool->context();
}

asio::io_context& DispatchRuntime::globalContext() {
    // More threads than cores: this pool mostly waits in blocking lookups.
    static Pool* const pool = new Pool(4, false);
    return pool->context();
}

DispatchRuntime::BlockingScope::BlockingScope() : pool_(currentPool) {
    if (pool_) static_cast<Pool*>(pool_)->enterBlocking();
}

DispatchRuntime::BlockingScope::~BlockingScope() {
    if (pool_) static_cast<Pool*>(pool_)->leaveBlocking();
}

DispatchRuntime::WorkScope::WorkScope() : pool_(currentPool) {
    if (pool_) static_cast<Pool*>(pool_)->beginWork();
}

DispatchRuntime::WorkScope::~WorkScope() {
    if (pool_) static_cast<Pool*>(pool_)->endWork();
}

}  // namespace kavrin
