#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "osc/discovery/OSCService.hpp"
#include "osc/dispatch/DispatchQueue.hpp"

namespace kavrin {

/// Finds services of some DNS-SD types through the Avahi daemon and reports each as it appears,
/// resolved to its host name, addresses, port and TXT records; again when what it resolves to
/// changes (an address more, say); and once more when it goes. A service counts as one
/// whatever the interfaces and protocols it is seen on. Without a daemon the status says so and
/// browsing starts when one does; when the daemon goes, every service it had reported goes with
/// it, and comes back as the new daemon finds it.
///
/// Thread safety: every operation may be called from any thread. The handlers run on the queue
/// given, in the order of the events, never inside a call to the browser.
class OSCServiceBrowser {
  public:
    enum class Event { appeared, changed, disappeared };
    using Handler = std::function<void(Event event, const OSCService& service)>;
    using StatusHandler = std::function<void(const OSCZeroconfStatus& status)>;

    /// The three types of OSC: `_osc._udp`, `_osc._tcp` and `_oscjson._tcp`.
    static std::vector<std::string> oscServiceTypes();

    OSCServiceBrowser(std::vector<std::string> types, std::shared_ptr<DispatchQueue> queue,
                      Handler handler, StatusHandler statusHandler = nullptr);
    /// Stops browsing; no handler is called once it has returned. Waits for the daemon's queue,
    /// so never call it from a handler of another zeroconf object.
    ~OSCServiceBrowser();
    OSCServiceBrowser(const OSCServiceBrowser&) = delete;
    OSCServiceBrowser& operator=(const OSCServiceBrowser&) = delete;

    OSCZeroconfStatus status() const;
    /// The services resolved now, in the order they appeared.
    std::vector<OSCService> services() const;

  private:
    struct Impl;
    std::shared_ptr<Impl> impl_;
};

}  // namespace kavrin
