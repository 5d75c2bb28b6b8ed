#pragma once

#include <memory>
#include <utility>

#include "osc/dispatch/ReadinessSource.hpp"

namespace kavrin {

/// A readiness source that knows whether it is suspended, so that suspending or resuming twice
/// costs nothing (the receive path resumes after every turn) and a close knows what to undo.
/// Empty until given a source; suspend and resume do nothing then. Touched only on the queue of
/// its owner. Internal to the transport layer.
class SuspendableSource {
  public:
    SuspendableSource() = default;
    /// Takes over a source just created, which is suspended.
    explicit SuspendableSource(std::shared_ptr<ReadinessSource> source)
        : source_(std::move(source)) {}

    explicit operator bool() const { return source_ != nullptr; }
    ReadinessSource* operator->() const { return source_.get(); }

    void suspend() {
        if (source_ && !suspended_) {
            source_->suspend();
            suspended_ = true;
        }
    }

    void resume() {
        if (source_ && suspended_) {
            source_->resume();
            suspended_ = false;
        }
    }

    /// Cancels the source and lets go of it; a suspended one is resumed after the cancel, so that
    /// its cancellation can finish.
    void cancel() {
        if (!source_) {
            return;
        }
        source_->cancel();
        if (suspended_) {
            source_->resume();
        }
        source_.reset();
        suspended_ = true;
    }

  private:
    std::shared_ptr<ReadinessSource> source_;
    bool suspended_ = true;  // as a new source starts
};

}  // namespace kavrin
