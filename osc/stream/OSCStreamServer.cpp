#include "osc/stream/OSCStreamServer.hpp"

#include <mutex>
#include <unordered_map>

#include "osc/dispatch/SerialQueue.hpp"
#include "osc/stream/detail/OSCStreamReceiver.hpp"

namespace kavrin {

// Takes the listener's connections, so that the listener (which holds its delegate weakly and
// is owned by the server) never keeps the server alive.
class OSCStreamServer::ListenerDelegate final : public TcpSocketDelegate {
  public:
    void socketDidAccept(TcpSocket&, std::shared_ptr<TcpSocket> socket) override {
        if (auto owner = server.lock()) owner->accepted(std::move(socket));
    }
    std::weak_ptr<OSCStreamServer> server;  // set before the listener can report
};

struct OSCStreamServer::State {
    State(std::uint16_t port, std::shared_ptr<DispatchQueue> dispatchQueue, TimeTagMode mode,
          OSCStreamSettings settings, Handler handler)
        : port_(port),
          settings_(std::move(settings)),
          receiver_(std::make_shared<OSCStreamReceiver>(
              SerialQueue::create("OSCStreamServer", QualityOfService::userInitiated),
              std::move(dispatchQueue), mode, settings_.textPolicy, std::move(handler))),
          listener_(TcpSocket::create(listenerDelegate_, receiver_->receiveQueue())) {}

    const std::uint16_t port_;
    const OSCStreamSettings settings_;
    const std::shared_ptr<OSCStreamReceiver> receiver_;
    const std::shared_ptr<ListenerDelegate> listenerDelegate_ =
        std::make_shared<ListenerDelegate>();
    const std::shared_ptr<TcpSocket> listener_;
    std::mutex handlerMutex_;
    OpenHandler openHandler_;    // guarded by handlerMutex_
    CloseHandler closeHandler_;  // guarded by handlerMutex_
    // Receive queue only.
    std::unordered_map<std::uint64_t, Connection> connections_;
};

std::shared_ptr<OSCStreamServer> OSCStreamServer::create(
    std::uint16_t port, std::shared_ptr<DispatchQueue> dispatchQueue, TimeTagMode mode,
    OSCStreamSettings settings, Handler handler) {
    auto server = std::make_shared<OSCStreamServer>(Private{}, port, std::move(dispatchQueue), mode,
                                                    std::move(settings), std::move(handler));
    server->d_->listenerDelegate_->server = server;
    std::weak_ptr<OSCStreamServer> weak = server;
    server->d_->receiver_->setHooks(
        [weak](const Connection& connection) {
            auto self = weak.lock();
            if (!self) return;
            std::lock_guard lock(self->d_->handlerMutex_);
            if (auto handler = self->d_->openHandler_) {
                self->d_->receiver_->dispatchQueue()->async(
                    [handler = std::move(handler), connection] { handler(connection); });
            }
        },
        [weak](const Connection& connection, const std::optional<TcpSocketError>& error) {
            if (auto self = weak.lock()) self->closed(connection, error);
        });
    return server;
}

OSCStreamServer::OSCStreamServer(Private, std::uint16_t port,
                                 std::shared_ptr<DispatchQueue> dispatchQueue, TimeTagMode mode,
                                 OSCStreamSettings settings, Handler handler)
    : d_(std::make_unique<State>(port, std::move(dispatchQueue), mode, std::move(settings),
                                 std::move(handler))) {}

OSCStreamServer::~OSCStreamServer() {
    d_->listener_->disconnect();
    // Deliveries still waiting for their time may hold a connection: its socket closes now all
    // the same.
    for (const auto& entry : d_->connections_) entry.second->abort();
}

std::uint16_t OSCStreamServer::port() const {
    return d_->port_;
}

const OSCStreamSettings& OSCStreamServer::settings() const {
    return d_->settings_;
}

void OSCStreamServer::setHandler(Handler handler) {
    d_->receiver_->setHandler(std::move(handler));
}

void OSCStreamServer::setViewHandler(ViewHandler handler) {
    d_->receiver_->setViewHandler(std::move(handler));
}

void OSCStreamServer::setPacketHandler(PacketHandler handler) {
    d_->receiver_->setPacketHandler(std::move(handler));
}

void OSCStreamServer::setOpenHandler(OpenHandler handler) {
    std::lock_guard lock(d_->handlerMutex_);
    d_->openHandler_ = std::move(handler);
}

void OSCStreamServer::setCloseHandler(CloseHandler handler) {
    std::lock_guard lock(d_->handlerMutex_);
    d_->closeHandler_ = std::move(handler);
}

OSCStreamServer::TimeTagMode OSCStreamServer::timeTagMode() const {
    return d_->receiver_->timeTagMode();
}

void OSCStreamServer::setTimeTagMode(TimeTagMode mode) {
    d_->receiver_->setTimeTagMode(mode);
}

void OSCStreamServer::setScheduledLimit(OSCScheduledLimit limit) {
    d_->receiver_->setScheduledLimit(limit);
}

OSCScheduledLimit OSCStreamServer::scheduledLimit() const {
    return d_->receiver_->scheduledLimit();
}

void OSCStreamServer::setMaxConnections(std::size_t count) {
    d_->listener_->setMaxAcceptedConnections(count);
}

void OSCStreamServer::setIdleTimeout(double seconds) {
    d_->listener_->setAcceptedIdleTimeout(seconds);
}

void OSCStreamServer::start() {
    d_->listener_->disconnect();
    TcpSocketError error;
    if (!d_->listener_->acceptOnPort(d_->port_, &error)) throw error;
}

void OSCStreamServer::stop() {
    d_->listener_->disconnect();
    d_->receiver_->receiveQueue()->sync([this] {
        for (const auto& entry : d_->connections_) entry.second->abort();
    });
}

std::uint16_t OSCStreamServer::boundPort() const {
    return d_->listener_->localPort();
}

std::vector<OSCStreamServer::Connection> OSCStreamServer::connections() const {
    std::vector<Connection> open;
    d_->receiver_->receiveQueue()->sync([&] {
        for (const auto& entry : d_->connections_) open.push_back(entry.second);
    });
    return open;
}

OSCStreamCounters OSCStreamServer::counters() const {
    return d_->receiver_->counters();
}

void OSCStreamServer::accepted(std::shared_ptr<TcpSocket> socket) {
    auto connection = OSCStreamConnection::make(d_->receiver_, d_->settings_, true);
    connection->attach(socket);
    // The socket reports nothing before it is read from, so no report can miss the connection.
    socket->setDelegate(connection->asDelegate(), d_->receiver_->receiveQueue());
    d_->connections_.emplace(connection->id(), connection);
    connection->begin();
}

void OSCStreamServer::closed(const Connection& connection,
                             const std::optional<TcpSocketError>& error) {
    d_->connections_.erase(connection->id());
    std::lock_guard lock(d_->handlerMutex_);
    if (auto handler = d_->closeHandler_) {
        d_->receiver_->dispatchQueue()->async(
            [handler = std::move(handler), connection, error] { handler(connection, error); });
    }
}

}  // namespace kavrin
