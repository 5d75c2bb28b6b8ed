#include "osc/dispatch/DispatchQueue.hpp"

#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>

#include "osc/dispatch/detail/DispatchRuntime.hpp"

namespace kavrin {

void DispatchQueue::sync(const Work& work) {
    if (isCurrent()) {
        work();
        return;
    }
    struct Completion {
        std::mutex mutex;
        std::condition_variable done;
        bool finished = false;
        std::exception_ptr error;
    };
    auto completion = std::make_shared<Completion>();
    // The work is referenced, not copied: this call outlives it.
    async([completion, &work] {
        std::exception_ptr error;
        try {
            work();
        } catch (...) {
            error = std::current_exception();
        }
        std::lock_guard lock(completion->mutex);
        completion->error = error;
        completion->finished = true;
        completion->done.notify_one();
    });
    DispatchRuntime::BlockingScope waiting;
    std::unique_lock lock(completion->mutex);
    completion->done.wait(lock, [&] { return completion->finished; });
    if (completion->error) std::rethrow_exception(completion->error);
}

}  // namespace kavrin
