#include "osc/discovery/detail/AvahiSession.hpp"

#include <avahi-common/error.h>

#include <chrono>

namespace kavrin::detail {

namespace {

// How often a missing bus is looked for again: the client itself waits for a missing daemon.
constexpr auto retryDelay = std::chrono::seconds(1);
const std::string noDaemon = "the Avahi daemon is not running";

}  // namespace

AvahiSession::AvahiSession(std::string label, Handler handler)
    : queue_(SerialQueue::create(std::move(label), QualityOfService::utility)),
      handler_(std::move(handler)) {}

AvahiSession::~AvahiSession() {
    queue_->sync([this] {
        *alive_ = false;
        if (client_) avahi_client_free(client_);
        client_ = nullptr;
        poll_.reset();
    });
}

void AvahiSession::start() {
    queue_->async([this, alive = std::weak_ptr<bool>(alive_)] {
        if (const auto living = alive.lock(); living && *living) connect();
    });
}

std::string AvahiSession::errorText(AvahiClient* client) {
    return avahi_strerror(avahi_client_errno(client));
}

void AvahiSession::connect() {
    if (!poll_) poll_ = std::make_unique<AvahiDispatchPoll>(queue_);
    int error = 0;
    // The callback runs inside this call already, with the new client.
    client_ = avahi_client_new(poll_->api(), AVAHI_CLIENT_NO_FAIL, clientCallback, this, &error);
    if (client_) return;
    if (error == AVAHI_ERR_NO_DAEMON || error == AVAHI_ERR_DISCONNECTED) {
        report(nullptr, OSCZeroconfStatus::State::daemonNotRunning, noDaemon);
    } else {
        report(nullptr, OSCZeroconfStatus::State::failed,
               std::string("Avahi: ") + avahi_strerror(error));
    }
    queue_->asyncAfter(retryDelay, [this, alive = std::weak_ptr<bool>(alive_)] {
        if (const auto living = alive.lock(); living && *living && !client_) connect();
    });
}

void AvahiSession::clientCallback(AvahiClient* client, AvahiClientState state, void* userdata) {
    auto& session = *static_cast<AvahiSession*>(userdata);
    using State = OSCZeroconfStatus::State;
    switch (state) {
        case AVAHI_CLIENT_S_RUNNING:
            session.report(client, State::running, "connected to the Avahi daemon");
            break;
        case AVAHI_CLIENT_S_REGISTERING:
        case AVAHI_CLIENT_S_COLLISION:
            // The host name is being (re)established; what was published must go again then.
            session.report(nullptr, State::connecting, "the Avahi daemon is registering its host name");
            break;
        case AVAHI_CLIENT_CONNECTING:
            session.report(nullptr, State::daemonNotRunning, noDaemon);
            break;
        case AVAHI_CLIENT_FAILURE: {
            const int error = avahi_client_errno(client);
            session.report(nullptr,
                           error == AVAHI_ERR_DISCONNECTED ? State::daemonNotRunning : State::failed,
                           error == AVAHI_ERR_DISCONNECTED
                               ? noDaemon
                               : std::string("Avahi: ") + avahi_strerror(error));
            // Not freed inside its own callback: a new client is made from fresh work.
            session.queue_->async([&session, alive = std::weak_ptr<bool>(session.alive_), client] {
                const auto living = alive.lock();
                if (!living || !*living || session.client_ != client) return;
                session.dropClient();
                session.connect();
            });
            break;
        }
    }
}

void AvahiSession::dropClient() {
    if (client_) avahi_client_free(client_);
    client_ = nullptr;
}

void AvahiSession::report(AvahiClient* client, OSCZeroconfStatus::State state, std::string text) {
    status_ = {state, std::move(text)};
    handler_(client, status_);
}

}  // namespace kavrin::detail
