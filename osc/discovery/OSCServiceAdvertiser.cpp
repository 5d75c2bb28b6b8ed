#include "osc/discovery/OSCServiceAdvertiser.hpp"

#include <avahi-client/publish.h>
#include <avahi-common/alternative.h>
#include <avahi-common/error.h>
#include <avahi-common/malloc.h>
#include <avahi-common/strlst.h>

#include <mutex>

#include "osc/discovery/detail/AvahiSession.hpp"
#include "osc/stream/OSCStreamServer.hpp"
#include "osc/transport/OSCServer.hpp"
#include "support/Logger.hpp"

namespace kavrin {

namespace {

OSCService streamService(std::string name, const OSCStreamServer& server) {
    OSCService service(std::move(name), std::string(oscTcpServiceType), server.boundPort());
    service.txt["framing"] = server.settings().framing == OSCFraming::slip ? "slip" : "length";
    if (server.settings().tls) service.txt["tls"] = "yes";
    return service;
}

}  // namespace

struct OSCServiceAdvertiser::Impl {
    Impl(OSCService service, std::shared_ptr<DispatchQueue> queue, StatusHandler handler)
        : service(std::move(service)),
          queue(std::move(queue)),
          handler(std::move(handler)),
          name(this->service.name),
          session("OSCServiceAdvertiser", [this](AvahiClient* client, const OSCZeroconfStatus& status) {
              changed(client, status);
          }) {}

    // On the session's queue from here on.
    void changed(AvahiClient* client, const OSCZeroconfStatus& status) {
        if (!client) {
            // Made with the client, and freed with it when it goes; a registering host name
            // needs the records taken back until it is settled.
            if (group && status.state == OSCZeroconfStatus::State::connecting) {
                avahi_entry_group_reset(group);
            }
            if (status.state != OSCZeroconfStatus::State::connecting) group = nullptr;
            report(status);
            return;
        }
        if (!group) group = avahi_entry_group_new(client, groupCallback, this);
        if (!group) {
            report({OSCZeroconfStatus::State::failed, "Avahi: " + detail::AvahiSession::errorText(client)});
            return;
        }
        publish(client);
    }

    void publish(AvahiClient* client) {
        AvahiStringList* txt = nullptr;
        for (const auto& [key, value] : service.txt) {
            txt = avahi_string_list_add_pair(txt, key.c_str(), value.c_str());
        }
        const std::string current = publishedName();
        avahi_entry_group_reset(group);
        int error = avahi_entry_group_add_service_strlst(
            group, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, AvahiPublishFlags{}, current.c_str(),
            service.type.c_str(), nullptr, nullptr, service.port, txt);
        avahi_string_list_free(txt);
        if (error == AVAHI_ERR_COLLISION) {
            rename();
            publish(client);
            return;
        }
        if (error == AVAHI_OK) error = avahi_entry_group_commit(group);
        if (error != AVAHI_OK) {
            report({OSCZeroconfStatus::State::failed,
                    "cannot publish \"" + current + "\": " + avahi_strerror(error)});
        }
    }

    static void groupCallback(AvahiEntryGroup* group, AvahiEntryGroupState state, void* userdata) {
        auto& self = *static_cast<Impl*>(userdata);
        if (group != self.group && self.group) return;  // of a client gone
        self.group = group;  // the first call comes before avahi_entry_group_new returns
        switch (state) {
            case AVAHI_ENTRY_GROUP_ESTABLISHED:
                self.report({OSCZeroconfStatus::State::running,
                             "published as \"" + self.publishedName() + "\""});
                break;
            case AVAHI_ENTRY_GROUP_COLLISION:
                self.log.info("the name \"{}\" is taken", self.publishedName());
                self.rename();
                self.publish(avahi_entry_group_get_client(group));
                break;
            case AVAHI_ENTRY_GROUP_FAILURE:
                self.report({OSCZeroconfStatus::State::failed,
                             "cannot publish \"" + self.publishedName() + "\": " +
                                 detail::AvahiSession::errorText(avahi_entry_group_get_client(group))});
                break;
            case AVAHI_ENTRY_GROUP_UNCOMMITED:
            case AVAHI_ENTRY_GROUP_REGISTERING:
                break;
        }
    }

    void rename() {
        std::lock_guard lock(mutex);
        char* next = avahi_alternative_service_name(name.c_str());
        name = next;
        avahi_free(next);
    }

    std::string publishedName() const {
        std::lock_guard lock(mutex);
        return name;
    }

    void report(OSCZeroconfStatus status) {
        {
            std::lock_guard lock(mutex);
            if (status == current) return;
            current = status;
        }
        log.debug("{} {}: {}", service.type, publishedName(), status.text);
        if (handler && queue) {
            queue->async([handler = handler, status, name = publishedName()] { handler(status, name); });
        }
    }

    const OSCService service;
    const std::shared_ptr<DispatchQueue> queue;
    const StatusHandler handler;
    const LogCategory log = Logger::shared().category("discovery");
    mutable std::mutex mutex;
    std::string name;            // guarded by mutex
    OSCZeroconfStatus current;   // guarded by mutex
    AvahiEntryGroup* group = nullptr;  // on the session's queue
    // Last: destroyed first, so that its client and the group go before the rest.
    detail::AvahiSession session;
};

OSCServiceAdvertiser::OSCServiceAdvertiser(OSCService service, std::shared_ptr<DispatchQueue> queue,
                                           StatusHandler handler)
    : impl_(std::make_shared<Impl>(std::move(service), std::move(queue), std::move(handler))) {
    impl_->session.start();
}

OSCServiceAdvertiser::OSCServiceAdvertiser(std::string name, const OSCServer& server,
                                           std::shared_ptr<DispatchQueue> queue,
                                           StatusHandler handler)
    : OSCServiceAdvertiser(
          OSCService(std::move(name), std::string(oscUdpServiceType), server.boundPort()),
          std::move(queue), std::move(handler)) {}

OSCServiceAdvertiser::OSCServiceAdvertiser(std::string name, const OSCStreamServer& server,
                                           std::shared_ptr<DispatchQueue> queue,
                                           StatusHandler handler)
    : OSCServiceAdvertiser(streamService(std::move(name), server), std::move(queue),
                           std::move(handler)) {}

OSCServiceAdvertiser::~OSCServiceAdvertiser() = default;

OSCZeroconfStatus OSCServiceAdvertiser::status() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->current;
}

std::string OSCServiceAdvertiser::publishedName() const { return impl_->publishedName(); }

const OSCService& OSCServiceAdvertiser::service() const { return impl_->service; }

}  // namespace kavrin
