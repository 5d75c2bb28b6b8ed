#include "app/DeviceFinder.hpp"

#include <algorithm>
#include <chrono>

#ifdef KAVRIN_HAVE_DISCOVERY
#include "osc/discovery/OSCServiceBrowser.hpp"
#endif
#ifdef KAVRIN_HAVE_QUERY
#include "osc/query/OSCQueryClient.hpp"
#endif

namespace kavrin {
namespace {

// A device that does not answer over HTTP is shown as such well before the window is closed.
constexpr auto hostInfoTimeout = std::chrono::seconds(2);

}  // namespace

DeviceFinder::DeviceFinder(std::shared_ptr<DispatchQueue> mainQueue, QObject* parent)
    : QObject(parent), mainQueue_(std::move(mainQueue)) {
#ifdef KAVRIN_HAVE_DISCOVERY
    status_ = tr("Connecting to the Avahi daemon\u2026");
    // Destroyed first, and no handler runs once it has: `this` outlives every call.
    browser_ = std::make_shared<OSCServiceBrowser>(
        OSCServiceBrowser::oscServiceTypes(), mainQueue_,
        [this](OSCServiceBrowser::Event event, const OSCService& service) {
            found(event == OSCServiceBrowser::Event::disappeared, service);
        },
        [this](const OSCZeroconfStatus& status) {
            using State = OSCZeroconfStatus::State;
            status_ = status.state == State::running      ? QString()
                      : status.state == State::connecting ? tr("Connecting to the Avahi daemon\u2026")
                                                          : tr("Nothing can be found: %1.")
                                                                .arg(QString::fromStdString(status.text));
            emit changed();
        });
#else
    status_ = tr("Nothing can be found: built without zeroconf (libavahi-client-dev).");
#endif
}

// The browser goes first, then the HOST_INFO readers: neither calls back once it has gone.
DeviceFinder::~DeviceFinder() = default;

void DeviceFinder::found(bool gone, const OSCService& service) {
    const auto device = std::find_if(devices_.begin(), devices_.end(), [&](const Device& known) {
        return known.service.name == service.name && known.service.type == service.type;
    });
    const bool oscQuery = service.type == oscQueryServiceType;
    if (gone) {
        if (device != devices_.end()) devices_.erase(device);
        if (oscQuery) {
            hostInfos_.erase(service.name);
            readers_.erase(service.name);
        }
    } else {
        const bool moved = device == devices_.end() || device->service.port != service.port ||
                           device->service.addresses != service.addresses;
        if (device == devices_.end()) {
            devices_.push_back({service, std::nullopt, {}});
        } else {
            device->service = service;
        }
        if (oscQuery && moved) readHostInfo(service);
    }
    choose();
    emit changed();
}

void DeviceFinder::readHostInfo(const OSCService& service) {
    auto& [info, note] = hostInfos_[service.name];
    info.reset();
#ifdef KAVRIN_HAVE_QUERY
    if (service.addresses.empty()) {
        note = tr("no address");
        return;
    }
    note = tr("reading HOST_INFO\u2026");
    // Numeric, as the pings will be; replaces (and so silences) an earlier reader.
    auto reader = OSCQueryClient::create(service.addresses.front(), service.port, mainQueue_,
                                         hostInfoTimeout);
    readers_[service.name] = reader;
    reader->fetchHostInfo([this, name = service.name](std::optional<OSCQueryHostInfo> read,
                                                      const std::string& error) {
        hostInfos_[name] = {read, read ? QString()
                                       : tr("HOST_INFO unread: %1").arg(QString::fromStdString(error))};
        choose();
        emit changed();
    });
#else
    note = tr("built without OSCQuery");
#endif
}

void DeviceFinder::choose() {
    std::vector<OSCService> services;
    for (const auto& device : devices_) services.push_back(device.service);
    for (auto& device : devices_) {
        if (device.service.type == oscQueryServiceType) {
            const auto& [info, note] = hostInfos_[device.service.name];
            device.choice = info ? DeviceChoice::of(device.service, *info, services) : std::nullopt;
            device.note = info ? (device.choice ? QString() : tr("HOST_INFO names no OSC port")) : note;
        } else {
            device.choice = DeviceChoice::of(device.service);
            device.note = device.choice                         ? QString()
                          : device.service.txt.contains("tls") ? tr("TLS, which the monitor does not speak")
                                                                : tr("no address");
        }
    }
}

}  // namespace kavrin
