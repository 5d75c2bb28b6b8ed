#pragma once

#include <QObject>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "app/LinkConnection.hpp"
#include "osc/transport/OSCClient.hpp"

namespace kavrin {

class DispatchQueue;
class OSCServer;
class OSCStreamClient;
struct OSCMessage;

// How the pings reach the console and its replies come back. Over udp a ping leaves from a port
// of its own, or from the listening server's port for consoles that answer the sender; the
// replies come to the server. Over tcp (each packet after its size) or slip (SLIP frames) the
// link keeps one connection open to the console, connecting again one second after it is
// refused or drops, and the replies come back on it. It numbers the pings when asked.
//
// Use from the GUI thread. Messages from the connection go to `receive`, and its changes to
// connectionChanged, on the delivery queue (the GUI thread), never inside a call; connecting and
// name lookups run off the GUI thread.
class MonitorLink : public QObject {
    Q_OBJECT

  public:
    enum class Transport { udp, tcp, slip };
    // "tcp" and "slip"; anything else is udp.
    static Transport transportNamed(std::string_view name);
    static const char* nameOf(Transport transport);

    // A reconnection waits this long; well under a tick, so that a console that comes back is
    // pinged at the next tick but one.
    static constexpr double retryDelay = 1.0;

    MonitorLink(std::shared_ptr<DispatchQueue> deliveryQueue,
                std::function<void(const OSCMessage&)> receive, QObject* parent = nullptr);
    ~MonitorLink() override;

    // Connects to `host`:`port` over tcp or slip, dropping a connection elsewhere; for udp drops
    // any connection. Does nothing when that is already the aim.
    void aim(Transport transport, const std::string& host, std::uint16_t port);
    Transport transport() const { return transport_; }

    // Sends a ping with `address` to where the link aims, over udp to `host`:`port` and from
    // `server` when one is given. With `numbered` it carries the next number, used up only when
    // the ping goes; returns the number. Throws, with the reason, when the ping cannot go: not
    // connected (nothing is queued for later), a server that is not running, a ping that cannot
    // be encoded.
    std::optional<std::int32_t> ping(const std::string& address, const std::string& host,
                                     std::uint16_t port, bool numbered, OSCServer* server);

    const LinkConnection& connection() const { return connection_; }
    // Packets the connections dropped as not OSC or undecodable; empty over udp.
    std::optional<std::uint64_t> droppedPackets() const;

  signals:
    void connectionChanged();

  private:
    void connect();

    const std::shared_ptr<DispatchQueue> deliveryQueue_;
    const std::function<void(const OSCMessage&)> receive_;
    Transport transport_ = Transport::udp;
    OSCClient udp_;
    std::shared_ptr<OSCStreamClient> stream_;
    LinkConnection connection_;
    // Since the connection opened: whether a ping went out on it, and whether anything came back.
    bool pingedOnConnection_ = false;
    bool answeredOnConnection_ = false;
    std::uint64_t droppedBefore_ = 0;  // by the connections of earlier aims
    std::int32_t nextNumber_ = 1;
};

}  // namespace kavrin
