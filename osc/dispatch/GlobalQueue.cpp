#include "osc/dispatch/GlobalQueue.hpp"

#include <array>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>

#include "osc/dispatch/detail/DispatchRuntime.hpp"

namespace kavrin {

namespace {

thread_local const DispatchQueue* currentGlobal = nullptr;

class ConcurrentQueue final : public DispatchQueue {
  public:
    void async(Work work) override {
        asio::post(DispatchRuntime::globalContext(), [this, work = std::move(work)] { run(work); });
    }

    using DispatchQueue::asyncAfter;
    void asyncAfter(Clock::time_point deadline, Work work) override {
        auto timer =
            std::make_shared<asio::steady_timer>(DispatchRuntime::globalContext(), deadline);
        timer->async_wait(
            [this, timer, work = std::move(work)](const std::error_code&) { run(work); });
    }

    bool isCurrent() const override { return currentGlobal == this; }

  private:
    void run(const Work& work) {
        const DispatchQueue* outer = currentGlobal;
        currentGlobal = this;
        work();
        currentGlobal = outer;
    }
};

// One queue per level; never destroyed, like the pool behind them.
std::array<std::shared_ptr<ConcurrentQueue>, 5>& queues() {
    static auto* const all = [] {
        auto* array = new std::array<std::shared_ptr<ConcurrentQueue>, 5>;
        for (auto& queue : *array) queue = std::make_shared<ConcurrentQueue>();
        return array;
    }();
    return *all;
}

}  // namespace

std::shared_ptr<DispatchQueue> GlobalQueue::get(QualityOfService qos) {
    return queues().at(static_cast<std::size_t>(qos));
}

bool GlobalQueue::isGlobal(const DispatchQueue* queue) {
    return dynamic_cast<const ConcurrentQueue*>(queue) != nullptr;
}

}  // namespace kavrin
