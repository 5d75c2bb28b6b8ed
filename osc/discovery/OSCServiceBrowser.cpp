#include "osc/discovery/OSCServiceBrowser.hpp"

#include <avahi-client/lookup.h>
#include <avahi-common/address.h>
#include <avahi-common/malloc.h>
#include <avahi-common/strlst.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>
#include <tuple>

#include "osc/discovery/detail/AvahiSession.hpp"
#include "support/Logger.hpp"

namespace kavrin {

namespace {

std::map<std::string, std::string> txtRecords(AvahiStringList* list) {
    std::map<std::string, std::string> records;
    for (; list; list = avahi_string_list_get_next(list)) {
        char* key = nullptr;
        char* value = nullptr;
        if (avahi_string_list_get_pair(list, &key, &value, nullptr) != 0) continue;
        records[key] = value ? value : "";
        avahi_free(key);
        avahi_free(value);
    }
    return records;
}

}  // namespace

struct OSCServiceBrowser::Impl {
    // A service as one name of one type in one domain.
    using Key = std::tuple<std::string, std::string, std::string>;
    // Where it is seen: an interface and a protocol.
    using Instance = std::pair<AvahiIfIndex, AvahiProtocol>;

    struct Resolution {
        AvahiServiceResolver* resolver = nullptr;
        bool resolved = false;
        std::string hostName;
        std::string address;
        std::uint16_t port = 0;
        std::map<std::string, std::string> txt;
    };
    struct Entry {
        std::map<Instance, Resolution> instances;
        std::optional<OSCService> reported;
        std::uint64_t order = 0;
    };

    Impl(std::vector<std::string> types, std::shared_ptr<DispatchQueue> queue, Handler handler,
         StatusHandler statusHandler)
        : types(std::move(types)),
          queue(std::move(queue)),
          handler(std::move(handler)),
          statusHandler(std::move(statusHandler)),
          session("OSCServiceBrowser", [this](AvahiClient* client, const OSCZeroconfStatus& status) {
              changed(client, status);
          }) {}

    // On the session's queue from here on.
    void changed(AvahiClient* client, const OSCZeroconfStatus& status) {
        if (!client) {
            // The browsers and resolvers go with the client (or are of no use while the host
            // name settles): forget them, and the services they found.
            for (auto* browser : browsers) {
                if (status.state == OSCZeroconfStatus::State::connecting) avahi_service_browser_free(browser);
            }
            browsers.clear();
            for (auto& [key, entry] : entries) {
                if (status.state == OSCZeroconfStatus::State::connecting) {
                    for (auto& [instance, resolution] : entry.instances) {
                        if (resolution.resolver) avahi_service_resolver_free(resolution.resolver);
                    }
                }
                if (entry.reported) post(Event::disappeared, *entry.reported);
            }
            entries.clear();
            report(status);
            return;
        }
        if (!browsers.empty()) return;  // browsing already
        for (const auto& type : types) {
            auto* browser = avahi_service_browser_new(client, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC,
                                                      type.c_str(), nullptr, AvahiLookupFlags{},
                                                      browseCallback, this);
            if (!browser) {
                report({OSCZeroconfStatus::State::failed,
                        "cannot browse " + type + ": " + detail::AvahiSession::errorText(client)});
                return;
            }
            browsers.push_back(browser);
        }
        report({OSCZeroconfStatus::State::running, "browsing"});
    }

    static void browseCallback(AvahiServiceBrowser* browser, AvahiIfIndex interface,
                               AvahiProtocol protocol, AvahiBrowserEvent event, const char* name,
                               const char* type, const char* domain, AvahiLookupResultFlags,
                               void* userdata) {
        auto& self = *static_cast<Impl*>(userdata);
        switch (event) {
            case AVAHI_BROWSER_NEW: {
                auto& entry = self.entries[Key(name, type, domain)];
                if (entry.instances.empty()) entry.order = self.nextOrder++;
                auto& resolution = entry.instances[Instance(interface, protocol)];
                if (resolution.resolver) break;
                resolution.resolver = avahi_service_resolver_new(
                    avahi_service_browser_get_client(browser), interface, protocol, name, type,
                    domain, AVAHI_PROTO_UNSPEC, AvahiLookupFlags{}, resolveCallback, userdata);
                if (!resolution.resolver) {
                    self.log.warning("cannot resolve \"{}\" ({}): {}", name, type,
                                     detail::AvahiSession::errorText(
                                         avahi_service_browser_get_client(browser)));
                }
                break;
            }
            case AVAHI_BROWSER_REMOVE: {
                const auto found = self.entries.find(Key(name, type, domain));
                if (found == self.entries.end()) break;
                auto& instances = found->second.instances;
                if (const auto instance = instances.find(Instance(interface, protocol));
                    instance != instances.end()) {
                    if (instance->second.resolver) avahi_service_resolver_free(instance->second.resolver);
                    instances.erase(instance);
                }
                self.update(found);
                break;
            }
            case AVAHI_BROWSER_FAILURE:
                self.report({OSCZeroconfStatus::State::failed,
                             "browsing failed: " + detail::AvahiSession::errorText(
                                                       avahi_service_browser_get_client(browser))});
                break;
            case AVAHI_BROWSER_ALL_FOR_NOW:
            case AVAHI_BROWSER_CACHE_EXHAUSTED:
                break;
        }
    }

    static void resolveCallback(AvahiServiceResolver* resolver, AvahiIfIndex interface,
                                AvahiProtocol protocol, AvahiResolverEvent event, const char* name,
                                const char* type, const char* domain, const char* hostName,
                                const AvahiAddress* address, std::uint16_t port,
                                AvahiStringList* txt, AvahiLookupResultFlags, void* userdata) {
        auto& self = *static_cast<Impl*>(userdata);
        const auto found = self.entries.find(Key(name, type, domain));
        if (found == self.entries.end()) return;
        const auto instance = found->second.instances.find(Instance(interface, protocol));
        if (instance == found->second.instances.end() || instance->second.resolver != resolver) return;
        auto& resolution = instance->second;
        if (event == AVAHI_RESOLVER_FOUND) {
            char text[AVAHI_ADDRESS_STR_MAX];
            resolution.resolved = true;
            resolution.hostName = hostName;
            resolution.address = avahi_address_snprint(text, sizeof text, address);
            resolution.port = port;
            resolution.txt = txtRecords(txt);
        } else {
            // It stays unresolved here until the browser removes it; other instances may do.
            self.log.info("cannot resolve \"{}\" ({}): {}", name, type,
                          detail::AvahiSession::errorText(avahi_service_resolver_get_client(resolver)));
            resolution.resolved = false;
        }
        self.update(found);
    }

    // Reports what changed in one service after an instance came, resolved or went.
    void update(std::map<Key, Entry>::iterator found) {
        auto& [key, entry] = *found;
        std::optional<OSCService> now;
        for (const auto& [instance, resolution] : entry.instances) {
            if (!resolution.resolved) continue;
            if (!now) {
                now = OSCService(std::get<0>(key), std::get<1>(key), resolution.port, resolution.txt);
                now->domain = std::get<2>(key);
                now->hostName = resolution.hostName;
            }
            if (std::find(now->addresses.begin(), now->addresses.end(), resolution.address) ==
                now->addresses.end()) {
                now->addresses.push_back(resolution.address);
            }
        }
        if (now) {
            // IPv4 first: a dotted address holds no colon.
            std::stable_partition(now->addresses.begin(), now->addresses.end(),
                                  [](const std::string& a) { return a.find(':') == a.npos; });
        }
        if (now != entry.reported) {
            if (now) {
                post(entry.reported ? Event::changed : Event::appeared, *now);
            } else {
                post(Event::disappeared, *entry.reported);
            }
            entry.reported = now;
        }
        if (entry.instances.empty()) entries.erase(found);
    }

    void post(Event event, const OSCService& service) {
        log.debug("{} \"{}\" ({})", event == Event::appeared ? "found" : event == Event::changed ? "changed" : "lost",
                  service.name, service.type);
        if (!handler) return;
        queue->async([handler = handler, alive = alive, event, service] {
            if (*alive) handler(event, service);
        });
    }

    void report(OSCZeroconfStatus status) {
        {
            std::lock_guard lock(mutex);
            if (status == current) return;
            current = status;
        }
        if (statusHandler) {
            queue->async([handler = statusHandler, alive = alive, status] {
                if (*alive) handler(status);
            });
        }
    }

    std::vector<OSCService> services() {
        std::vector<std::pair<std::uint64_t, OSCService>> found;
        session.queue()->sync([&] {
            for (const auto& [key, entry] : entries) {
                if (entry.reported) found.emplace_back(entry.order, *entry.reported);
            }
        });
        std::sort(found.begin(), found.end(),
                  [](const auto& a, const auto& b) { return a.first < b.first; });
        std::vector<OSCService> services;
        for (auto& [order, service] : found) services.push_back(std::move(service));
        return services;
    }

    const std::vector<std::string> types;
    const std::shared_ptr<DispatchQueue> queue;
    const Handler handler;
    const StatusHandler statusHandler;
    const std::shared_ptr<std::atomic<bool>> alive = std::make_shared<std::atomic<bool>>(true);
    const LogCategory log = Logger::shared().category("discovery");
    mutable std::mutex mutex;
    OSCZeroconfStatus current;  // guarded by mutex
    // On the session's queue.
    std::vector<AvahiServiceBrowser*> browsers;
    std::map<Key, Entry> entries;
    std::uint64_t nextOrder = 0;
    // Last: destroyed first, so that its client and what it made go before the rest.
    detail::AvahiSession session;
};

std::vector<std::string> OSCServiceBrowser::oscServiceTypes() {
    return {std::string(oscUdpServiceType), std::string(oscTcpServiceType),
            std::string(oscQueryServiceType)};
}

OSCServiceBrowser::OSCServiceBrowser(std::vector<std::string> types,
                                     std::shared_ptr<DispatchQueue> queue, Handler handler,
                                     StatusHandler statusHandler)
    : impl_(std::make_shared<Impl>(std::move(types), std::move(queue), std::move(handler),
                                   std::move(statusHandler))) {
    impl_->session.start();
}

OSCServiceBrowser::~OSCServiceBrowser() { *impl_->alive = false; }

OSCZeroconfStatus OSCServiceBrowser::status() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->current;
}

std::vector<OSCService> OSCServiceBrowser::services() const { return impl_->services(); }

}  // namespace kavrin
