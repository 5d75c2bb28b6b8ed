#pragma once

#include <avahi-client/client.h>

#include <functional>
#include <memory>
#include <string>

#include "osc/discovery/OSCService.hpp"
#include "osc/discovery/detail/AvahiDispatchPoll.hpp"

namespace kavrin::detail {

/// One Avahi client on a serial queue of its own, kept connected: it waits for a daemon that is
/// not running (AVAHI_CLIENT_NO_FAIL), and when the daemon or the bus goes away it makes a new
/// client, again and again, until they are back. Internal to the discovery layer.
///
/// Thread safety: made anywhere; start() and close() from any thread but the queue's own work
/// (close() waits for the queue); the handler runs on the queue, as does all use of client().
class AvahiSession {
  public:
    /// Told each change: the client to use while the state is running, nullptr otherwise. When
    /// the client goes, everything made with it has gone too and must be forgotten, not freed.
    using Handler = std::function<void(AvahiClient* client, const OSCZeroconfStatus& status)>;

    AvahiSession(std::string label, Handler handler);
    /// Frees the client, and with it everything made with it, on the queue.
    ~AvahiSession();
    AvahiSession(const AvahiSession&) = delete;
    AvahiSession& operator=(const AvahiSession&) = delete;

    void start();
    const std::shared_ptr<SerialQueue>& queue() const { return queue_; }
    /// The last status, on the queue.
    const OSCZeroconfStatus& status() const { return status_; }

    /// Why a call on the client failed, for a status text.
    static std::string errorText(AvahiClient* client);

  private:
    static void clientCallback(AvahiClient* client, AvahiClientState state, void* userdata);
    void connect();
    void report(AvahiClient* client, OSCZeroconfStatus::State state, std::string text);
    void dropClient();

    const std::shared_ptr<SerialQueue> queue_;
    const Handler handler_;
    // On the queue only.
    std::unique_ptr<AvahiDispatchPoll> poll_;
    AvahiClient* client_ = nullptr;
    OSCZeroconfStatus status_;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace kavrin::detail
