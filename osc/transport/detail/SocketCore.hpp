#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <utility>

#include "osc/dispatch/DispatchQueue.hpp"
#include "osc/dispatch/SerialQueue.hpp"
#include "osc/transport/detail/Fail.hpp"

namespace kavrin {

/// What every socket keeps and does alike: its delegate and the queue that delegate is told on,
/// its own serial queue, and the ways onto that queue. `Socket` is the public socket, which
/// keys its queue (one queue may serve several sockets) and is what the delegate is told about.
/// The members are touched only on the socket queue. Internal to the transport layer.
template <class Socket, class Delegate, class Error>
class SocketCore {
  public:
    SocketCore(Socket& socket, std::weak_ptr<Delegate> delegate,
               std::shared_ptr<DispatchQueue> delegateQueue,
               std::shared_ptr<SerialQueue> socketQueue)
        : delegate_(std::move(delegate)),
          delegateQueue_(std::move(delegateQueue)),
          socketQueue_(std::move(socketQueue)),
          socket_(socket) {
        socketQueue_->setSpecific(&socket_, &socket_);
    }
    SocketCore(const SocketCore&) = delete;
    SocketCore& operator=(const SocketCore&) = delete;

    bool onSocketQueue() const { return SerialQueue::getSpecific(&socket_) == &socket_; }

    /// Runs work on the socket queue and waits for it, inline when already there.
    void runSync(const std::function<void()>& work) const {
        if (onSocketQueue()) {
            work();
        } else {
            socketQueue_->sync(work);
        }
    }

    /// Inline on the socket queue, else posted.
    void runSoon(std::function<void()> work) {
        if (onSocketQueue()) {
            work();
        } else {
            post(std::move(work));
        }
    }

    /// Always posted, keeping the socket alive until it has run, so calls keep their order.
    void post(std::function<void()> work) {
        socketQueue_->async(
            [self = socket_.shared_from_this(), work = std::move(work)] { work(); });
    }

    /// read's result, read on the socket queue.
    template <class F>
    auto query(F&& read) const {
        std::optional<decltype(read())> result;
        runSync([&] { result = read(); });
        return *result;
    }

    /// Posts call(delegate, socket) to the delegate queue. Nothing is posted without a delegate
    /// or a queue, or while the socket is being destroyed.
    template <class F>
    void notifyDelegate(F&& call) {
        auto delegate = delegate_.lock();
        auto self = socket_.weak_from_this().lock();
        if (!delegate || !delegateQueue_ || !self) {
            return;
        }
        delegateQueue_->async([self = std::move(self), delegate = std::move(delegate),
                               call = std::forward<F>(call)]() mutable { call(*delegate, *self); });
    }

    /// False (with the socket's bad-config error) while there is no delegate or delegate queue.
    bool preCheck(Error* error) const {
        if (!delegate_.lock()) {
            return fail(error, Error::badConfigError(
                                   "Attempting to use socket without a delegate. Set a delegate "
                                   "first."));
        }
        if (!delegateQueue_) {
            return fail(error, Error::badConfigError(
                                   "Attempting to use socket without a delegate queue. Set a "
                                   "delegate queue first."));
        }
        return true;
    }

    /// Ends the socket's hold on its queue; the last thing the socket does on it.
    void leaveQueue() { socketQueue_->setSpecific(&socket_, nullptr); }

    std::weak_ptr<Delegate> delegate_;
    std::shared_ptr<DispatchQueue> delegateQueue_;
    const std::shared_ptr<SerialQueue> socketQueue_;

  private:
    Socket& socket_;
};

}  // namespace kavrin
