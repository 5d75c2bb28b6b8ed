#pragma once

#include <QObject>
#include <QString>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "app/DeviceChoice.hpp"
#include "osc/discovery/OSCService.hpp"

namespace kavrin {

class DispatchQueue;
class OSCQueryClient;
class OSCServiceBrowser;

// The OSC devices on the network, as zeroconf finds them, for as long as it lives: the
// _osc._udp, _osc._tcp and _oscjson._tcp services as they come and go, each with where its pings
// would go. For an OSCQuery service that is its HOST_INFO's OSC port, read over HTTP off the GUI
// thread. Without a daemon, or without zeroconf in the build, status() says so.
//
// Use from the GUI thread; changed() is emitted there, from `mainQueue`, never inside a call.
class DeviceFinder : public QObject {
    Q_OBJECT

  public:
    struct Device {
        OSCService service;
        std::optional<DeviceChoice> choice;  // none: it cannot be pinged (yet; see note)
        QString note;  // why there is no choice: "reading HOST_INFO…", an error
    };

    explicit DeviceFinder(std::shared_ptr<DispatchQueue> mainQueue, QObject* parent = nullptr);
    ~DeviceFinder() override;

    // In the order they appeared.
    const std::vector<Device>& devices() const { return devices_; }
    // Empty while it is looking; else why nothing can be found, in a sentence.
    QString status() const { return status_; }

  signals:
    void changed();

  private:
    void found(bool gone, const OSCService& service);
    void readHostInfo(const OSCService& service);
    void choose();  // the choices again, since an OSCQuery one depends on the others

    const std::shared_ptr<DispatchQueue> mainQueue_;
    std::vector<Device> devices_;
    QString status_;
    // By the OSCQuery service's name: its HOST_INFO, or why it could not be read.
    std::map<std::string, std::pair<std::optional<OSCQueryHostInfo>, QString>> hostInfos_;
    std::map<std::string, std::shared_ptr<OSCQueryClient>> readers_;  // by service name
    // Last: destroyed first, so that no report comes once the rest has gone. Shared only so that a
    // build without zeroconf, which never makes one, needs none of its code.
    std::shared_ptr<OSCServiceBrowser> browser_;
};

}  // namespace kavrin
