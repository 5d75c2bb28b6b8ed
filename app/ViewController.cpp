#include "app/ViewController.hpp"

#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPalette>
#include <exception>

#include "app/MessageLogView.hpp"
#include "app/DeliveryQueue.hpp"
#include "osc/codec/OSCMessage.hpp"
#include "osc/codec/OSCPacket.hpp"
#include "support/ASCIIScan.hpp"
#include "support/FatalError.hpp"
#include "ui_MainWindow.h"

namespace kavrin {
namespace {

constexpr auto pingInterval = std::chrono::milliseconds(2000);
// Room for about 40,000 small messages: a second of a flood, or the GUI thread held up that
// long, is ridden out. An unprivileged process gets at most net.core.rmem_max.
constexpr std::size_t kernelReceiveBuffer = 4 << 20;

std::string decimal(std::int64_t value) {
    return std::to_string(value);
}

// Ports are kept as typed (any 32-bit value may be stored); only a socket needs 0...65535.
std::uint16_t socketPort(std::int64_t port, const char* which) {
    if (port < 0 || port > 65535) {
        fatalError(std::string(which) + " port " + decimal(port) + " is outside 0...65535");
    }
    return static_cast<std::uint16_t>(port);
}

void paint(QWidget* view, const QColor& colour) {
    // A view that does not fill its own background has nothing to colour.
    if (!view->autoFillBackground()) {
        return;
    }
    QPalette palette = view->palette();
    palette.setColor(QPalette::Window, colour);
    view->setPalette(palette);
}

}  // namespace

ViewController::ViewController(MonitorSettings& defaults, std::shared_ptr<DispatchQueue> mainQueue,
                               LogLine log, QWidget* parent)
    : QWidget(parent),
      defaults(defaults),
      alert(new QMessageBox(this)),
      mainQueue(std::move(mainQueue)),
      log(std::move(log)) {
    Ui::MainWindow().setupUi(this);
    timer.setInterval(pingInterval);
    timer.setTimerType(Qt::PreciseTimer);
    connect(&timer, &QTimer::timeout, this, &ViewController::sendPing);
}

// The server and client close their sockets as they go.
ViewController::~ViewController() = default;

template <class Widget>
Widget* ViewController::outlet(const char* name) const {
    // Looked up again once the one found is gone, so a missing outlet is met where it is used.
    QPointer<QObject>& found = outlets[name];
    if (found == nullptr) found = findChild<Widget*>(QLatin1String(name));
    auto* widget = qobject_cast<Widget*>(found.data());
    if (widget == nullptr) {
        fatalError(std::string("the layout has no outlet ") + name);
    }
    return widget;
}

void ViewController::viewDidLoad() {
    MyOutIP = QString::fromStdString(defaults.ip.value());
    outlet<QLineEdit>("IpText")->setText(MyOutIP);
    MyOutPort = defaults.outPort.value();
    outlet<QLineEdit>("OutPortText")->setText(QString::number(MyOutPort));
    MyInPort = defaults.inPort.value();
    outlet<QLineEdit>("InPortText")->setText(QString::number(MyInPort));
    MyOutMsg = QString::fromStdString(defaults.ping.value());
    outlet<QLineEdit>("OutMsgText")->setText(MyOutMsg);
    setExpectedReply(QString::fromStdString(defaults.reply.value()));
    outlet<QLineEdit>("InMsgText")->setText(MyInMsg);

    const std::uint16_t inPort = socketPort(MyInPort, "incoming");
    oscServer = OSCServer::create(inPort, nullptr, std::make_shared<DeliveryQueue>(mainQueue),
                                  OSCServer::TimeTagMode::ignore, nullptr);
    oscServer->setKernelReceiveBufferSize(kernelReceiveBuffer);
    oscServer->setHandler(
        [self = QPointer<ViewController>(this)](const OSCMessage& message, const OSCTimeTag&) {
            if (self) {
                self->receive(message);
            }
        });
    try {
        oscServer->start();
    } catch (const std::exception& error) {
        // No retry: the monitor runs on without a server and stays red.
        log("Failed to start OSC Server on port " + decimal(MyInPort) + ": " + error.what());
    }
    // Printed after a failure too; deliberate.
    log("OSC Server started on port " + decimal(MyInPort));

    timer.start();
}

void ViewController::sendPing() {
    const OSCMessage ping(OSCAddressPattern(MyOutMsg.toStdString()), {});
    const std::uint16_t port = socketPort(MyOutPort, "outgoing");
    try {
        oscClient.send(OSCPacket(ping), MyOutIP.toStdString(), port);
        log("Sent OSC ping to " + MyOutIP.toStdString() + ":" + decimal(MyOutPort) +
            " \u2192 pattern " + MyOutMsg.toStdString());
    } catch (const std::exception& error) {
        log(std::string("ERROR sending ping: ") + error.what());
    }

    // The reply to this ping usually arrives after the paint, so it counts at the next tick.
    if (OSCgood) {
        paint(outlet<QWidget>("Background"), QColor(0x00, 0xFF, 0x00));
        outlet<QLabel>("StatusLab")->setText(QStringLiteral("OSC IS ALIVE"));
    } else {
        paint(outlet<QWidget>("Background"), QColor(0xFF, 0x00, 0x00));
        outlet<QLabel>("StatusLab")->setText(QStringLiteral("OSC IS DEAD!!!"));
    }
    OSCgood = false;
}

void ViewController::receive(const OSCMessage& message) {
    log("Received OSC message: " + message.description());

    const std::string& address = message.addressPattern.rawAddress();
    outlet<MessageLogView>("MsgView")->append(address);

    // Text without a byte above 127 is its own normal form, and containment in UTF-8 is
    // containment in characters: the usual address needs no conversion.
    const bool matches =
        isASCII(address) ? !expectedNFC.empty() && address.find(expectedNFC) != std::string::npos
              : addressContains(QString::fromStdString(address), MyInMsg);
    if (matches) {
        OSCgood = true;
        log(matchedLine);
    } else {
        // An earlier match in this interval still stands.
        log(unmatchedLine);
    }
}

void ViewController::setExpectedReply(QString text) {
    MyInMsg = std::move(text);
    expectedNFC = MyInMsg.normalized(QString::NormalizationForm_C).toStdString();
    matchedLine = "Matched expected pattern '" + MyInMsg.toStdString() + "'. Setting OSCgood = true";
    unmatchedLine =
        "No match for expected pattern '" + MyInMsg.toStdString() + "'. OSCgood remains false";
}

bool ViewController::addressContains(const QString& address, const QString& expected) {
    if (expected.isEmpty()) {
        return false;
    }
    return address.normalized(QString::NormalizationForm_C)
        .contains(expected.normalized(QString::NormalizationForm_C), Qt::CaseSensitive);
}

void ViewController::ChangeIP() {
    MyOutIP = outlet<QLineEdit>("IpText")->text();
    defaults.ip.set(MyOutIP.toStdString());
}

void ViewController::ChangeOutPort() {
    MyOutPort =
        MonitorSettings::writePort(defaults.outPort, outlet<QLineEdit>("OutPortText")->text());
}

void ViewController::ChangeInPort() {
    MyInPort = MonitorSettings::writePort(defaults.inPort, outlet<QLineEdit>("InPortText")->text());
    // The running server keeps its port; the stored one is read at the next start.
    alert->setText(QStringLiteral("Restart the App to change Port."));
    alert->setInformativeText(
        QStringLiteral("Incoming OSC port changes will apply after restart."));
    alert->setStandardButtons(QMessageBox::Ok);
    alert->setWindowModality(Qt::ApplicationModal);
    alert->exec();
}

void ViewController::ChangeOutMsg() {
    MyOutMsg = outlet<QLineEdit>("OutMsgText")->text();
    defaults.ping.set(MyOutMsg.toStdString());
}

void ViewController::ChangeInMsgText() {
    setExpectedReply(outlet<QLineEdit>("InMsgText")->text());
    defaults.reply.set(MyInMsg.toStdString());
}

}  // namespace kavrin
