#include "osc/query/OSCQueryServer.hpp"

#include <map>
#include <mutex>
#include <variant>

#include "osc/codec/OSCError.hpp"
#include "osc/codec/OSCMessage.hpp"
#include "osc/codec/OSCPacket.hpp"
#include "osc/query/detail/HttpService.hpp"
#include "osc/query/detail/OSCQueryCommand.hpp"
#include "osc/query/detail/OSCQueryJson.hpp"
#include "osc/query/detail/OSCQueryResponder.hpp"
#include "osc/stream/OSCStreamServer.hpp"
#include "osc/transport/OSCServer.hpp"
#include "support/Logger.hpp"

namespace kavrin {

using detail::HttpService;
using detail::Json;
using PeerID = HttpService::PeerID;

namespace detail {

// The server's state, in the internal namespace so that the shared library keeps it (and the
// internal types its functions take) to itself.
struct OSCQueryServerState : std::enable_shared_from_this<OSCQueryServerState> {
    using Settings = OSCQueryServerSettings;
    OSCQueryServerState(std::shared_ptr<OSCAddressSpace> space, std::shared_ptr<DispatchQueue> spaceQueue,
                        Settings settings)
        : space(std::move(space)), spaceQueue(std::move(spaceQueue)), settings(std::move(settings)) {}

    HttpService::Handlers handlers() {
        // The service's thread ends before the service, the last member, is destroyed, so its
        // handlers may hold `this`; work for the space's queue holds a weak reference.
        return {
            .request = [this](detail::HttpRequestInfo request,
                              std::function<void(detail::HttpReply)> reply) { answer(request, reply); },
            .opened = [this](PeerID peer, const detail::HttpRequestInfo& request) {
                std::lock_guard lock(mutex);
                peers[peer].origin = request.origin;
            },
            .text = [this](PeerID peer, std::string text) { command(peer, text); },
            .binary = [this](PeerID peer, std::string bytes) { write(peer, bytes); },
            .closed = [this](PeerID peer) {
                std::lock_guard lock(mutex);
                for (const auto& address : peers[peer].listening) {
                    if (auto found = listeners.find(address); found != listeners.end()) {
                        found->second.erase(peer);
                        if (found->second.empty()) listeners.erase(found);
                    }
                }
                peers.erase(peer);
            },
        };
    }

    void answer(const detail::HttpRequestInfo& request,
                const std::function<void(detail::HttpReply)>& reply) {
        auto target = detail::OSCQueryTarget::parse(request.target);
        if (auto* problem = std::get_if<std::string>(&target)) {
            return reply({400, detail::jsonText(Json{{"ERROR", *problem}})});
        }
        spaceQueue->async([weak = weak_from_this(), target = std::get<detail::OSCQueryTarget>(std::move(target)),
                           local = request.localAddress, reply] {
            const auto self = weak.lock();
            if (!self) return;
            std::lock_guard lock(self->mutex);
            auto answer = detail::OSCQueryResponder(*self->space, self->states)
                              .answer(target, self->hostInfo(local));
            reply({answer.status, std::move(answer.body)});
        });
    }

    Json hostInfo(const std::string& localAddress) const {
        OSCQueryHostInfo info{settings.name, settings.oscAddress.empty() ? localAddress : settings.oscAddress,
                              settings.oscPort, settings.oscTransport, {}};
        for (const char* name : {"ACCESS", "VALUE", "RANGE", "DESCRIPTION", "TAGS", "CRITICAL", "LISTEN",
                                 "PATH_ADDED", "PATH_REMOVED"}) {
            info.extensions[name] = true;
        }
        for (const char* name : {"CLIPMODE", "UNIT", "PATH_RENAMED", "PATH_CHANGED", "HTML"}) {
            info.extensions[name] = false;
        }
        return detail::hostInfoJson(info);
    }

    void command(PeerID peer, const std::string& text) {
        auto parsed = detail::OSCQueryCommand::parse(text);
        if (auto* problem = std::get_if<std::string>(&parsed)) {
            log.info("WebSocket peer {} sent a bad command ({}): closed", peer, *problem);
            return service->close(peer, "a bad command: " + *problem);
        }
        const auto& command = std::get<detail::OSCQueryCommand>(parsed);
        OSCValueList current;
        {
            std::lock_guard lock(mutex);
            if (command.kind == detail::OSCQueryCommand::Kind::ignore) {
                peers[peer].listening.erase(command.path);
                if (auto found = listeners.find(command.path); found != listeners.end()) {
                    found->second.erase(peer);
                    if (found->second.empty()) listeners.erase(found);
                }
                return;
            }
            peers[peer].listening.insert(command.path);
            listeners[command.path].insert(peer);
            if (const auto state = states.find(command.path); state != states.end()) current = state->second.value;
        }
        // A listener starts from the current value.
        if (!current.empty()) service->send({peer}, frameOf(command.path, current), true);
    }

    void write(PeerID peer, const std::string& bytes) {
        std::string origin;
        {
            std::lock_guard lock(mutex);
            origin = peers[peer].origin;
        }
        if (!settings.acceptValues) return service->close(peer, "this server takes no values");
        if (!origin.empty() && !settings.writeOrigins.contains(origin)) {
            return service->close(peer, "pages of " + origin + " may not send values");
        }
        std::optional<OSCPacket> packet;
        try {
            packet = OSCPacket::decode(std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()));
        } catch (const OSCDecodeError& error) {
            return service->close(peer, std::string("not an OSC packet: ") + error.what());
        }
        if (!packet) return service->close(peer, "not an OSC packet");
        spaceQueue->async([weak = weak_from_this(), packet = std::move(*packet)] {
            if (const auto self = weak.lock()) self->dispatch(packet);
        });
    }

    void dispatch(const OSCPacket& packet) {
        if (const auto* bundle = std::get_if<OSCBundle>(&packet)) {
            for (const auto& element : bundle->elements) dispatch(element);
        } else {
            space->dispatch(std::get<OSCMessage>(packet));
        }
    }

    static HttpService::Frame frameOf(std::string_view address, const OSCValueList& values) {
        const auto bytes = OSCMessage(OSCAddressPattern(address), values).rawData();
        return std::make_shared<const std::string>(bytes.begin(), bytes.end());
    }

    // Tells every WebSocket client of a change to the tree.
    void announce(const char* command, Json data) {
        std::vector<PeerID> all;
        {
            std::lock_guard lock(mutex);
            for (const auto& [peer, state] : peers) all.push_back(peer);
        }
        if (all.empty()) return;
        const Json message = {{"COMMAND", command}, {"DATA", std::move(data)}};
        service->send(std::move(all), std::make_shared<const std::string>(detail::jsonText(message)), false);
    }

    struct Peer {
        std::string origin;
        std::set<std::string> listening;
    };

    const std::shared_ptr<OSCAddressSpace> space;
    const std::shared_ptr<DispatchQueue> spaceQueue;
    Settings settings;  // the OSC port and transport guarded by mutex once started
    const LogCategory log = Logger::shared().category("query");
    mutable std::mutex mutex;
    detail::OSCQueryMethodStates states;                  // guarded by mutex
    std::map<std::string, std::set<PeerID>, std::less<>> listeners;  // guarded by mutex
    std::map<PeerID, Peer> peers;                         // guarded by mutex
    std::uint16_t port = 0;                               // guarded by mutex
    std::unique_ptr<HttpService> service;  // last: its thread ends before the rest goes
};

}  // namespace detail

struct OSCQueryServer::Impl : detail::OSCQueryServerState {
    using OSCQueryServerState::OSCQueryServerState;
};

OSCQueryServer::OSCQueryServer(std::shared_ptr<OSCAddressSpace> space,
                               std::shared_ptr<DispatchQueue> spaceQueue, Settings settings)
    : impl_(std::make_shared<Impl>(std::move(space), std::move(spaceQueue), std::move(settings))) {
    impl_->service = std::make_unique<HttpService>(impl_->handlers(), HttpService::Limits{});
}

// The service goes with the last reference to the state, which work on the space queue may hold.
OSCQueryServer::~OSCQueryServer() = default;

void OSCQueryServer::start() {
    const auto port = impl_->service->listen(impl_->settings.httpAddress, impl_->settings.httpPort);
    std::lock_guard lock(impl_->mutex);
    impl_->port = port;
    impl_->log.info("OSCQuery on {} port {}", impl_->settings.httpAddress, port);
}

std::uint16_t OSCQueryServer::boundPort() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->port;
}

void OSCQueryServer::describeOSCServer(const OSCServer& server) {
    std::lock_guard lock(impl_->mutex);
    impl_->settings.oscPort = server.boundPort();
    impl_->settings.oscTransport = OSCQueryTransport::udp;
}

void OSCQueryServer::describeOSCServer(const OSCStreamServer& server) {
    std::lock_guard lock(impl_->mutex);
    impl_->settings.oscPort = server.boundPort();
    impl_->settings.oscTransport = OSCQueryTransport::tcp;
}

void OSCQueryServer::setAttributes(std::string address, OSCQueryAttributes attributes) {
    std::lock_guard lock(impl_->mutex);
    auto& state = impl_->states[std::move(address)];
    state.attributes = std::move(attributes);
    state.text.clear();
}

void OSCQueryServer::registerMethod(std::string address, OSCAddressSpace::Block block,
                                    OSCQueryAttributes attributes) {
    setAttributes(address, std::move(attributes));
    impl_->spaceQueue->async([weak = impl_->weak_from_this(), address = std::move(address),
                              block = std::move(block)]() mutable {
        const auto self = weak.lock();
        if (!self) return;
        const bool added = !self->space->methodID(address);
        self->space->registerMethod(address, std::move(block));
        if (!added) return;
        Json node;
        {
            std::lock_guard lock(self->mutex);
            node = detail::OSCQueryResponder(*self->space, self->states).describe(address);
        }
        self->announce("PATH_ADDED", std::move(node));
    });
}

void OSCQueryServer::unregisterMethod(std::string address) {
    impl_->spaceQueue->async([weak = impl_->weak_from_this(), address = std::move(address)] {
        const auto self = weak.lock();
        if (!self || !self->space->unregister(address)) return;
        {
            std::lock_guard lock(self->mutex);
            self->states.erase(address);
        }
        self->announce("PATH_REMOVED", address);
    });
}

void OSCQueryServer::setValue(std::string_view address, OSCValueList values) {
    auto frame = Impl::frameOf(address, values);
    std::vector<PeerID> listening;
    {
        std::lock_guard lock(impl_->mutex);
        auto& state = impl_->states[std::string(address)];
        state.value = std::move(values);
        state.text.clear();
        if (const auto found = impl_->listeners.find(address); found != impl_->listeners.end()) {
            listening.assign(found->second.begin(), found->second.end());
        }
    }
    if (!listening.empty()) impl_->service->send(std::move(listening), std::move(frame), true);
}

std::size_t OSCQueryServer::listenerCount(std::string_view address) const {
    std::lock_guard lock(impl_->mutex);
    const auto found = impl_->listeners.find(address);
    return found == impl_->listeners.end() ? 0 : found->second.size();
}

std::size_t OSCQueryServer::connectionCount() const { return impl_->service->connectionCount(); }

}  // namespace kavrin
