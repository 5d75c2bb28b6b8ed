#include "osc/stream/OSCStreamClient.hpp"

#include <algorithm>
#include <chrono>

#include "osc/dispatch/SerialQueue.hpp"
#include "osc/stream/detail/OSCStreamReceiver.hpp"

namespace kavrin {

std::shared_ptr<OSCStreamClient> OSCStreamClient::create(
    std::string host, std::uint16_t port, std::shared_ptr<DispatchQueue> dispatchQueue,
    OSCStreamSettings settings, Handler handler, TimeTagMode mode) {
    auto client = std::make_shared<OSCStreamClient>(Private{}, std::move(host), port,
                                                    std::move(dispatchQueue), std::move(settings),
                                                    std::move(handler), mode);
    std::weak_ptr<OSCStreamClient> weak = client;
    client->receiver_->setHooks(
        [weak](const std::shared_ptr<OSCStreamConnection>& connection) {
            auto self = weak.lock();
            if (!self) return;
            std::lock_guard lock(self->mutex_);
            if (connection != self->connection_) return;
            self->delay_ = self->reconnect_.initialDelay;
            for (auto& framed : self->pending_) connection->sendFramed(std::move(framed), nullptr);
            self->pending_.clear();
            self->pendingBytes_ = 0;
            self->changeState(State::connected, std::nullopt);
            if (self->closing_) connection->close();
        },
        [weak](const std::shared_ptr<OSCStreamConnection>& connection,
               const std::optional<TcpSocketError>& error) {
            if (auto self = weak.lock()) self->closed(connection, error);
        });
    return client;
}

OSCStreamClient::OSCStreamClient(Private, std::string host, std::uint16_t port,
                                 std::shared_ptr<DispatchQueue> dispatchQueue,
                                 OSCStreamSettings settings, Handler handler, TimeTagMode mode)
    : host_(std::move(host)),
      port_(port),
      settings_(std::move(settings)),
      receiver_(std::make_shared<OSCStreamReceiver>(
          SerialQueue::create("OSCStreamClient", QualityOfService::userInitiated),
          std::move(dispatchQueue), mode, settings_.textPolicy, std::move(handler))) {}

OSCStreamClient::~OSCStreamClient() {
    if (connection_) connection_->abort();
}

void OSCStreamClient::setHandler(Handler handler) {
    receiver_->setHandler(std::move(handler));
}

void OSCStreamClient::setStateHandler(StateHandler handler) {
    std::lock_guard lock(mutex_);
    stateHandler_ = std::move(handler);
}

void OSCStreamClient::setReconnect(Reconnect reconnect) {
    std::lock_guard lock(mutex_);
    reconnect_ = reconnect;
}

OSCStreamClient::TimeTagMode OSCStreamClient::timeTagMode() const {
    return receiver_->timeTagMode();
}

void OSCStreamClient::setTimeTagMode(TimeTagMode mode) {
    receiver_->setTimeTagMode(mode);
}

OSCStreamClient::State OSCStreamClient::state() const {
    std::lock_guard lock(mutex_);
    return state_;
}

std::shared_ptr<OSCStreamConnection> OSCStreamClient::connection() const {
    std::lock_guard lock(mutex_);
    return connection_;
}

OSCStreamCounters OSCStreamClient::counters() const {
    return receiver_->counters();
}

// Called with mutex_ held.
void OSCStreamClient::changeState(State state, const std::optional<TcpSocketError>& error) {
    state_ = state;
    if (auto handler = stateHandler_) {
        receiver_->dispatchQueue()->async(
            [handler = std::move(handler), state, error] { handler(state, error); });
    }
}

void OSCStreamClient::connect() {
    {
        std::lock_guard lock(mutex_);
        if (state_ != State::closed || connection_) return;
        closing_ = false;
        delay_ = reconnect_.initialDelay;
        ++generation_;
        changeState(State::connecting, std::nullopt);  // sends wait for it from now on
    }
    receiver_->receiveQueue()->async([self = shared_from_this()] { self->connectNow(); });
}

void OSCStreamClient::connectNow() {
    std::unique_lock lock(mutex_);
    if (connection_ || state_ == State::closed) return;
    auto connection = OSCStreamConnection::make(receiver_, settings_, false);
    // The socket works on the receive queue too: a read and its report hand over within one
    // queue instead of waking another for every chunk.
    auto socket = TcpSocket::create(connection->asDelegate(), receiver_->receiveQueue(),
                                    receiver_->receiveQueue());
    connection->attach(socket);
    connection_ = connection;
    if (state_ != State::connecting) changeState(State::connecting, std::nullopt);
    TcpSocketError error;
    if (!socket->connectToHost(host_, port_, settings_.connectTimeout, &error)) {
        lock.unlock();
        closed(connection, error);  // the socket reports nothing for a call it refused
    }
}

bool OSCStreamClient::send(const OSCPacket& packet, TcpSocketError* error) {
    std::vector<std::uint8_t> framed;
    try {
        framed =
            framePacket(settings_.framing, packet, settings_.maximumFrame, settings_.textPolicy);
    } catch (const OSCFramingError& tooLong) {
        if (error) *error = TcpSocketError::badParamError(tooLong.what());
        return false;
    }
    std::lock_guard lock(mutex_);
    if (closing_ || state_ == State::closed) {
        if (error) *error = TcpSocketError::badConfigError("The client is closed.");
        return false;
    }
    if (state_ == State::connected && connection_ && !connection_->isClosed()) {
        return connection_->sendFramed(std::move(framed), error);
    }
    // Held until a connection is up: a connect that fails drops what its socket has queued,
    // and one that has just dropped takes nothing more.
    if (pendingBytes_ + framed.size() > maxPendingBytes && !pending_.empty()) {
        if (error) *error = TcpSocketError::writeQueueFullError();
        return false;
    }
    pendingBytes_ += framed.size();
    pending_.push_back(std::move(framed));
    return true;
}

void OSCStreamClient::close() {
    std::lock_guard lock(mutex_);
    if (closing_) return;
    closing_ = true;
    ++generation_;  // a retry already scheduled does nothing
    if (state_ == State::connected) {
        connection_->close();  // once what was sent is written
        return;
    }
    // A connect under way finishes: once up, it writes what waits and closes; if it fails,
    // the client closes with its error.
    if (state_ == State::connecting) return;
    pending_.clear();
    pendingBytes_ = 0;
    if (state_ != State::closed) changeState(State::closed, std::nullopt);
}

void OSCStreamClient::closed(const std::shared_ptr<OSCStreamConnection>& connection,
                             const std::optional<TcpSocketError>& error) {
    std::lock_guard lock(mutex_);
    if (connection != connection_) return;
    connection_.reset();
    if (closing_ || !reconnect_.enabled) {
        closing_ = true;  // final: nothing more is sent
        pending_.clear();
        pendingBytes_ = 0;
        changeState(State::closed, error);
        return;
    }
    changeState(State::waiting, error);
    const auto wait = std::chrono::duration_cast<DispatchQueue::Clock::duration>(
        std::chrono::duration<double>(delay_));
    delay_ = std::min(delay_ * 2, reconnect_.maximumDelay);
    receiver_->receiveQueue()->asyncAfter(wait,
                                          [weak = weak_from_this(), generation = generation_] {
                                              auto self = weak.lock();
                                              if (!self) return;
                                              {
                                                  std::lock_guard relock(self->mutex_);
                                                  if (generation != self->generation_) return;
                                              }
                                              self->connectNow();
                                          });
}

}  // namespace kavrin
