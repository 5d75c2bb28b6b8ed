#include "osc/stream/OSCStreamServer.hpp"

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

std::shared_ptr<OSCStreamServer> OSCStreamServer::create(
    std::uint16_t port, std::shared_ptr<DispatchQueue> dispatchQueue, TimeTagMode mode,
    OSCStreamSettings settings, Handler handler) {
    auto server = std::make_shared<OSCStreamServer>(Private{}, port, std::move(dispatchQueue), mode,
                                                    std::move(settings), std::move(handler));
    server->listenerDelegate_->server = server;
    std::weak_ptr<OSCStreamServer> weak = server;
    server->receiver_->setHooks(
        [weak](const Connection& connection) {
            auto self = weak.lock();
            if (!self) return;
            std::lock_guard lock(self->handlerMutex_);
            if (auto handler = self->openHandler_) {
                self->receiver_->dispatchQueue()->async(
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
    : port_(port),
      settings_(std::move(settings)),
      receiver_(std::make_shared<OSCStreamReceiver>(
          SerialQueue::create("OSCStreamServer", QualityOfService::userInitiated),
          std::move(dispatchQueue), mode, settings_.textPolicy, std::move(handler))),
      listenerDelegate_(std::make_shared<ListenerDelegate>()),
      listener_(TcpSocket::create(listenerDelegate_, receiver_->receiveQueue())) {}

OSCStreamServer::~OSCStreamServer() {
    listener_->disconnect();
    // Deliveries still waiting for their time may hold a connection: its socket closes now all
    // the same.
    for (const auto& entry : connections_) entry.second->abort();
}

void OSCStreamServer::setHandler(Handler handler) {
    receiver_->setHandler(std::move(handler));
}

void OSCStreamServer::setViewHandler(ViewHandler handler) {
    receiver_->setViewHandler(std::move(handler));
}

void OSCStreamServer::setPacketHandler(PacketHandler handler) {
    receiver_->setPacketHandler(std::move(handler));
}

void OSCStreamServer::setOpenHandler(OpenHandler handler) {
    std::lock_guard lock(handlerMutex_);
    openHandler_ = std::move(handler);
}

void OSCStreamServer::setCloseHandler(CloseHandler handler) {
    std::lock_guard lock(handlerMutex_);
    closeHandler_ = std::move(handler);
}

OSCStreamServer::TimeTagMode OSCStreamServer::timeTagMode() const {
    return receiver_->timeTagMode();
}

void OSCStreamServer::setTimeTagMode(TimeTagMode mode) {
    receiver_->setTimeTagMode(mode);
}

void OSCStreamServer::setScheduledLimit(OSCScheduledLimit limit) {
    receiver_->setScheduledLimit(limit);
}

OSCScheduledLimit OSCStreamServer::scheduledLimit() const {
    return receiver_->scheduledLimit();
}

void OSCStreamServer::setMaxConnections(std::size_t count) {
    listener_->setMaxAcceptedConnections(count);
}

void OSCStreamServer::setIdleTimeout(double seconds) {
    listener_->setAcceptedIdleTimeout(seconds);
}

void OSCStreamServer::start() {
    listener_->disconnect();
    TcpSocketError error;
    if (!listener_->acceptOnPort(port_, &error)) throw error;
}

void OSCStreamServer::stop() {
    listener_->disconnect();
    receiver_->receiveQueue()->sync([this] {
        for (const auto& entry : connections_) entry.second->abort();
    });
}

std::uint16_t OSCStreamServer::boundPort() const {
    return listener_->localPort();
}

std::vector<OSCStreamServer::Connection> OSCStreamServer::connections() const {
    std::vector<Connection> open;
    receiver_->receiveQueue()->sync([&] {
        for (const auto& entry : connections_) open.push_back(entry.second);
    });
    return open;
}

OSCStreamCounters OSCStreamServer::counters() const {
    return receiver_->counters();
}

void OSCStreamServer::accepted(std::shared_ptr<TcpSocket> socket) {
    auto connection = OSCStreamConnection::make(receiver_, settings_, true);
    connection->attach(socket);
    // The socket reports nothing before it is read from, so no report can miss the connection.
    socket->setDelegate(connection->asDelegate(), receiver_->receiveQueue());
    connections_.emplace(connection->id(), connection);
    connection->begin();
}

void OSCStreamServer::closed(const Connection& connection,
                             const std::optional<TcpSocketError>& error) {
    connections_.erase(connection->id());
    std::lock_guard lock(handlerMutex_);
    if (auto handler = closeHandler_) {
        receiver_->dispatchQueue()->async(
            [handler = std::move(handler), connection, error] { handler(connection, error); });
    }
}

}  // namespace kavrin
