#pragma once

#include <atomic>
#include <initializer_list>
#include <memory>

#include "osc/dispatch/DispatchQueue.hpp"
#include "osc/dispatch/ManualQueue.hpp"

namespace kavrin {

/// The main queue of a program without a GUI event loop: main() calls run(), which runs the work
/// posted to the loop on that thread, in posting order (delayed work by deadline, equal deadlines
/// in posting order), until stop() is called or a watched signal arrives. An idle loop sleeps
/// without waking.
///
///     auto loop = std::make_shared<RunLoop>();
///     loop->stopOnSignals({SIGINT, SIGTERM});
///     auto server = OSCServer::create(8000, nullptr, loop, OSCServer::TimeTagMode::ignore, handler);
///     server->start();
///     return loop->run();
///
/// Thread safety: async(), asyncAfter(), isCurrent() and stop() from any thread, stop() also from
/// the loop's own work; run() from one thread at a time.
class RunLoop final : public DispatchQueue {
  public:
    RunLoop();
    /// Restores the signal handlers stopOnSignals() replaced; work still pending is dropped.
    ~RunLoop() override;
    RunLoop(const RunLoop&) = delete;
    RunLoop& operator=(const RunLoop&) = delete;

    void async(Work work) override;
    using DispatchQueue::asyncAfter;
    void asyncAfter(Clock::time_point deadline, Work work) override;
    bool isCurrent() const override;

    /// Runs work as it becomes due until stop(), then returns the status given to it. A stop()
    /// made before run() makes it return at once; work not yet run waits for the next run().
    int run();
    /// Makes run() return once the work in progress, if any, has returned.
    void stop(int status = 0);
    /// From now until the loop is destroyed, each of these signals stops it with the status
    /// 128 + the signal's number, as a shell reports a program ended by it. The signals' former
    /// handlers are put back by the destructor. One loop at a time may watch signals.
    void stopOnSignals(std::initializer_list<int> signals);

  private:
    struct SignalWatch;

    ManualQueue queue_;
    std::atomic<bool> stopRequested_{false};
    std::atomic<int> status_{0};
    std::unique_ptr<SignalWatch> signals_;
};

}  // namespace kavrin
