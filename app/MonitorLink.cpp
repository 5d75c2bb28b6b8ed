#include "app/MonitorLink.hpp"

#include <QPointer>
#include <cerrno>
#include <limits>
#include <stdexcept>

#include "osc/codec/OSCMessage.hpp"
#include "osc/codec/OSCPacket.hpp"
#include "osc/stream/OSCStreamClient.hpp"
#include "osc/transport/OSCServer.hpp"

namespace kavrin {
namespace {

// Seconds of a tick: the longest a connect, or a pause in the middle of a packet, may take.
constexpr double tick = 2.0;

const char* otherFraming(MonitorLink::Transport transport) {
    return transport == MonitorLink::Transport::slip ? "tcp" : "slip";
}

// Whether the console's bytes broke `transport`'s framing as the other framing's would. A SLIP
// stream starts with an END byte, which read as a size is negative; a size-prefixed stream has
// no END byte, so a SLIP reader waits for one until the packet outgrows the maximum or stalls.
bool looksFramedTheOtherWay(MonitorLink::Transport transport, const TcpSocketError& error) {
    const bool brokenFraming = error.domain() == oscStreamErrorDomain;
    const bool stalledInPacket =
        error.domain() == TcpSocketError::socketDomain && error.code() == TcpSocketError::readTimeout;
    return brokenFraming || (transport == MonitorLink::Transport::slip && stalledInPacket);
}

}  // namespace

MonitorLink::Transport MonitorLink::transportNamed(std::string_view name) {
    return name == "tcp" ? Transport::tcp : name == "slip" ? Transport::slip : Transport::udp;
}

const char* MonitorLink::nameOf(Transport transport) {
    switch (transport) {
        case Transport::tcp: return "tcp";
        case Transport::slip: return "slip";
        case Transport::udp: break;
    }
    return "udp";
}

MonitorLink::MonitorLink(std::shared_ptr<DispatchQueue> deliveryQueue,
                         std::function<void(const OSCMessage&)> receive, QObject* parent)
    : QObject(parent), deliveryQueue_(std::move(deliveryQueue)), receive_(std::move(receive)) {}

// The connection closes at once with the client.
MonitorLink::~MonitorLink() = default;

void MonitorLink::aim(Transport transport, const std::string& host, std::uint16_t port) {
    const bool stream = transport != Transport::udp;
    if (transport == transport_ && (!stream || (host == connection_.host && port == connection_.port))) {
        return;
    }
    if (const auto dropped = droppedPackets()) droppedBefore_ = *dropped;
    stream_.reset();
    transport_ = transport;
    connection_ = {};
    if (stream) {
        connection_.state = LinkConnection::State::connecting;
        connection_.transport = nameOf(transport);
        connection_.host = host;
        connection_.port = port;
        connect();
    }
    emit connectionChanged();
}

void MonitorLink::connect() {
    OSCStreamSettings settings;
    settings.framing = transport_ == Transport::slip ? OSCFraming::slip : OSCFraming::lengthPrefixed;
    settings.connectTimeout = tick;
    settings.frameTimeout = tick;
    const QPointer<MonitorLink> self(this);
    stream_ = OSCStreamClient::create(
        connection_.host, connection_.port, deliveryQueue_, settings,
        [self](const OSCMessage& message, const OSCTimeTag&, const std::shared_ptr<OSCStreamConnection>&) {
            if (!self) return;
            self->answeredOnConnection_ = true;
            if (self->connection_.framingHint) {  // the framing fits after all
                self->connection_.framingHint.reset();
                emit self->connectionChanged();
            }
            self->receive_(message);
        });
    stream_->setReconnect({true, retryDelay, retryDelay});
    stream_->setStateHandler([self, client = std::weak_ptr<OSCStreamClient>(stream_)](
                                 OSCStreamClient::State state, const std::optional<TcpSocketError>& error) {
        // Reports of a connection given up for another aim are stale.
        if (!self || client.lock() != self->stream_) return;
        LinkConnection& connection = self->connection_;
        switch (state) {
            case OSCStreamClient::State::connecting:
                connection.state = LinkConnection::State::connecting;
                connection.retryAt.reset();
                break;
            case OSCStreamClient::State::connected:
                connection.state = LinkConnection::State::connected;
                connection.reason.reset();
                self->pingedOnConnection_ = self->answeredOnConnection_ = false;
                break;
            case OSCStreamClient::State::waiting:
            case OSCStreamClient::State::closed:
                connection.wasConnected = connection.state == LinkConnection::State::connected;
                connection.refused = error && error->domain() == SocketError::posixDomain &&
                                     error->code() == ECONNREFUSED;
                connection.reason = error ? std::optional(error->description()) : std::nullopt;
                if (error && looksFramedTheOtherWay(self->transport_, *error)) {
                    connection.framingHint = {otherFraming(self->transport_), true};
                } else if (connection.wasConnected && self->pingedOnConnection_ &&
                           !self->answeredOnConnection_) {
                    connection.framingHint = {otherFraming(self->transport_), false};
                }
                connection.state = LinkConnection::State::waiting;
                connection.retryAt = std::chrono::steady_clock::now() +
                                     std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                         std::chrono::duration<double>(retryDelay));
                break;
        }
        emit self->connectionChanged();
    });
    stream_->connect();
}

std::optional<std::int32_t> MonitorLink::ping(const std::string& address, const std::string& host,
                                              std::uint16_t port, bool numbered, OSCServer* server) {
    std::vector<OSCValue> values;
    if (numbered) values.emplace_back(nextNumber_);
    const OSCPacket packet(OSCMessage(OSCAddressPattern(address), std::move(values)));
    if (transport_ == Transport::udp) {
        if (server) {
            server->send(packet, host, port);
        } else {
            udp_.send(packet, host, port);
        }
    } else {
        // Sent on the connection itself: the client would hold it for the next connection.
        const auto connection = stream_ && stream_->state() == OSCStreamClient::State::connected
                                    ? stream_->connection()
                                    : nullptr;
        if (!connection) {
            // The window may not have heard yet of a drop the client has seen.
            const std::string why =
                connection_.state == LinkConnection::State::connected ? "the connection closed"
                : connection_.reason                                   ? *connection_.reason
                : connection_.wasConnected                             ? "closed by the console"
                                                                       : "connecting";
            throw std::runtime_error("not connected to " + connection_.host + ":" +
                                     std::to_string(connection_.port) + " over " +
                                     nameOf(transport_) + ": " + why);
        }
        TcpSocketError error;
        if (!connection->send(packet, &error)) throw error;
        pingedOnConnection_ = true;
    }
    if (!numbered) return std::nullopt;
    const std::int32_t number = nextNumber_;
    nextNumber_ = number == std::numeric_limits<std::int32_t>::max() ? 1 : number + 1;
    return number;
}

std::optional<std::uint64_t> MonitorLink::droppedPackets() const {
    if (!stream_) return std::nullopt;
    const auto counters = stream_->counters();
    return droppedBefore_ + counters.droppedNotOSC + counters.droppedMalformed +
           counters.droppedUnexpectedType + counters.droppedInternalInconsistency;
}

}  // namespace kavrin
