#include "app/MonitorAdvertiser.hpp"

#include <QPointer>
#include <QSysInfo>

#ifdef KAVRIN_HAVE_DISCOVERY
#include "osc/discovery/OSCServiceAdvertiser.hpp"
#endif
#include "support/Logger.hpp"

namespace kavrin {

MonitorAdvertiser::MonitorAdvertiser(std::shared_ptr<DispatchQueue> mainQueue, QObject* parent)
    : QObject(parent), mainQueue_(std::move(mainQueue)) {}

// Withdraws the service.
MonitorAdvertiser::~MonitorAdvertiser() = default;

std::string MonitorAdvertiser::serviceName() {
    return "Kavrin on " + QSysInfo::machineHostName().section(QLatin1Char('.'), 0, 0).toStdString();
}

void MonitorAdvertiser::serverStarted(std::uint16_t port) {
    port_ = port;
    update();
}

void MonitorAdvertiser::setEnabled(bool enabled) {
    enabled_ = enabled;
    update();
}

void MonitorAdvertiser::update() {
    const bool wanted = enabled_ && port_;
    if (wanted == (advertiser_ != nullptr)) return;
    advertiser_.reset();
    ++generation_;
    status_ = {};
    publishedName_ = serviceName();
#ifdef KAVRIN_HAVE_DISCOVERY
    if (wanted) {
        advertiser_ = std::make_shared<OSCServiceAdvertiser>(
            OSCService(publishedName_, std::string(oscUdpServiceType), *port_), mainQueue_,
            [self = QPointer(this), generation = generation_](const OSCZeroconfStatus& status,
                                                              const std::string& name) {
                if (!self || self->generation_ != generation) return;
                self->status_ = status;
                self->publishedName_ = name;
                // Without a daemon the window says so; only what goes wrong with one is logged.
                const auto log = Logger::shared().category("discovery");
                if (status.state == OSCZeroconfStatus::State::failed) {
                    log.warning("the monitor is not advertised: {}", status.text);
                } else {
                    log.debug("advertising \"{}\": {}", name, status.text);
                }
                emit self->changed();
            });
    }
#endif
    emit changed();
}

QString MonitorAdvertiser::status() const {
    const QString name = QString::fromStdString(publishedName_);
    if (!enabled_) return tr("Off: this monitor is not advertised.");
    if (!port_) return tr("Not advertised: the OSC server is not running.");
#ifndef KAVRIN_HAVE_DISCOVERY
    return tr("Not advertised: built without zeroconf (libavahi-client-dev).");
#endif
    switch (status_.state) {
        case OSCZeroconfStatus::State::connecting:
            return tr("Advertising this monitor as \u201c%1\u201d\u2026").arg(name);
        case OSCZeroconfStatus::State::running:
            return tr("Advertised as \u201c%1\u201d: _osc._udp, port %2.").arg(name).arg(*port_);
        case OSCZeroconfStatus::State::daemonNotRunning:
        case OSCZeroconfStatus::State::failed:
            break;
    }
    return tr("Not advertised: %1.").arg(QString::fromStdString(status_.text));
}

}  // namespace kavrin
