#pragma once

#include <functional>
#include <memory>
#include <string>

#include "osc/discovery/OSCService.hpp"
#include "osc/dispatch/DispatchQueue.hpp"

namespace kavrin {

class OSCServer;
class OSCStreamServer;

/// Publishes one service with DNS-SD through the Avahi daemon for as long as it lives, and
/// withdraws it when destroyed. A name another host already uses is replaced as Avahi
/// suggests ("Kavrin" → "Kavrin #2"). Without a daemon it waits for one; when the daemon
/// restarts it publishes again. Nothing else in the process is affected either way.
///
///     OSCServiceAdvertiser advertiser("Studio desk", *server, loop);  // _osc._udp, bound port
///
/// Thread safety: every operation may be called from any thread. The status handler runs on
/// the queue given, never inside a call to the advertiser.
class OSCServiceAdvertiser {
  public:
    /// Told each change of the status; the name published so far comes with it.
    using StatusHandler =
        std::function<void(const OSCZeroconfStatus& status, const std::string& publishedName)>;

    /// Publishes `service` (its name, type, port and TXT records; the rest is ignored).
    OSCServiceAdvertiser(OSCService service, std::shared_ptr<DispatchQueue> queue = nullptr,
                         StatusHandler handler = nullptr);
    /// Publishes a started server as `_osc._udp` on its bound port.
    OSCServiceAdvertiser(std::string name, const OSCServer& server,
                         std::shared_ptr<DispatchQueue> queue = nullptr,
                         StatusHandler handler = nullptr);
    /// Publishes a started stream server as `_osc._tcp` on its bound port, with the TXT record
    /// framing=slip when it frames with SLIP (else framing=length), and tls=yes over TLS.
    OSCServiceAdvertiser(std::string name, const OSCStreamServer& server,
                         std::shared_ptr<DispatchQueue> queue = nullptr,
                         StatusHandler handler = nullptr);
    /// Withdraws the service; waits for the daemon's queue, so never call it from a handler of
    /// another zeroconf object.
    ~OSCServiceAdvertiser();
    OSCServiceAdvertiser(const OSCServiceAdvertiser&) = delete;
    OSCServiceAdvertiser& operator=(const OSCServiceAdvertiser&) = delete;

    OSCZeroconfStatus status() const;
    /// The name in use: the one asked for until a collision renames it.
    std::string publishedName() const;
    const OSCService& service() const;

  private:
    struct Impl;
    std::shared_ptr<Impl> impl_;
};

}  // namespace kavrin
