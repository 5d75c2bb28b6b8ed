#pragma once

#include <QObject>
#include <QString>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "osc/discovery/OSCService.hpp"

namespace kavrin {

class DispatchQueue;
class OSCServiceAdvertiser;

// Makes the monitor's own OSC server known on the network, so that a console's setup can find
// it: _osc._udp on the listening port, named "Kavrin on " and the machine's short host name
// (Avahi renames it "… #2" when another host has that name). It advertises only while it is on
// and the server runs; without a daemon it waits for one. status() says how it goes, in a
// sentence for the window; failures are logged too, and nothing is ever printed on stdout.
//
// Use from the GUI thread; changed() is emitted there, from `mainQueue`, never inside a call.
class MonitorAdvertiser : public QObject {
    Q_OBJECT

  public:
    MonitorAdvertiser(std::shared_ptr<DispatchQueue> mainQueue, QObject* parent = nullptr);
    ~MonitorAdvertiser() override;

    // "Kavrin on studio": the name asked for.
    static std::string serviceName();

    // The port the server listens on, once it has started.
    void serverStarted(std::uint16_t port);
    // Advertises, or withdraws the service, at once.
    void setEnabled(bool enabled);
    QString status() const;

  signals:
    void changed();

  private:
    void update();

    const std::shared_ptr<DispatchQueue> mainQueue_;
    std::optional<std::uint16_t> port_;  // of the server, once it runs
    bool enabled_ = false;
    // Shared only so that a build without zeroconf, which never makes one, needs none of its
    // code.
    std::shared_ptr<OSCServiceAdvertiser> advertiser_;
    // Counts the advertisers made, so that a status one posted before it went is not taken for
    // the next one's.
    unsigned generation_ = 0;
    OSCZeroconfStatus status_;
    std::string publishedName_;
};

}  // namespace kavrin
