#include "app/ViewController.hpp"

#include <QAction>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QMessageBox>
#include <QPalette>
#include <exception>

#include "app/MessageLogView.hpp"
#include "app/DeliveryQueue.hpp"
#include "app/DroppedDatagrams.hpp"
#include "app/LinkLight.hpp"
#include "app/LinkStatusText.hpp"
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
// The reply's age is shown in tenths of a second.
constexpr auto measuresInterval = std::chrono::milliseconds(100);

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
                               LogLine log, std::filesystem::path historyFile, QWidget* parent)
    : QWidget(parent),
      defaults(defaults),
      history_(std::move(historyFile), mainQueue,
               [self = QPointer<ViewController>(this)](const std::string& what) {
                   // Shown for the rest of the run: the history has a gap from here on.
                   if (!self) return;
                   auto* status = self->outlet<QLabel>("HistoryStatusLab");
                   status->setText(QStringLiteral("Link history not saved: ") +
                                   QString::fromStdString(what));
                   status->show();
               }),
      tray_(new StatusTray(this)),
      alert(new QMessageBox(this)),
      mainQueue(std::move(mainQueue)),
      log(std::move(log)) {
    Ui::MainWindow().setupUi(this);
    timer.setInterval(pingInterval);
    timer.setTimerType(Qt::PreciseTimer);
    connect(&timer, &QTimer::timeout, this, &ViewController::sendPing);
    measuresTimer.setInterval(measuresInterval);
    connect(&measuresTimer, &QTimer::timeout, this, &ViewController::showMeasures);

    auto* showHistoryAction = new QAction(QStringLiteral("Link History\u2026"), this);
    showHistoryAction->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_H));
    connect(showHistoryAction, &QAction::triggered, this, &ViewController::showHistory);
    addAction(showHistoryAction);
    setContextMenuPolicy(Qt::CustomContextMenu);
    connect(this, &QWidget::customContextMenuRequested, this,
            [this, showHistoryAction](const QPoint& at) {
                QMenu menu(this);
                menu.addAction(showHistoryAction);
                menu.exec(mapToGlobal(at));
            });
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
    measuresTimer.start();
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

    lastPing = SteadyClock::now();
    pingAnswered = false;

    // The reply to this ping usually arrives after the paint, so it counts at the next tick.
    paint(outlet<QWidget>("Background"), lightColour(OSCgood));
    outlet<QLabel>("StatusLab")->setText(lightText(OSCgood));
    history_.painted(std::chrono::system_clock::now(), OSCgood);
    tray_->painted(OSCgood);
    OSCgood = false;
}

void ViewController::receive(const OSCMessage& message) {
    log("Received OSC message: " + message.description());

    const std::string_view address = message.addressPattern.rawAddress();
    outlet<MessageLogView>("MsgView")->append(address);

    // Text without a byte above 127 is its own normal form, and containment in UTF-8 is
    // containment in characters: the usual address needs no conversion.
    const bool matches =
        isASCII(address)
            ? !expectedNFC.empty() && address.find(expectedNFC) != std::string_view::npos
            : addressContains(QString::fromUtf8(address.data(), static_cast<qsizetype>(address.size())),
                              MyInMsg);
    if (matches) {
        OSCgood = true;
        log(matchedLine);
        lastReply = SteadyClock::now();
        // A reply later than the next ping counts for that one: pings carry no number.
        if (lastPing && !pingAnswered) {
            pingAnswered = true;
            roundTrip = std::chrono::duration_cast<std::chrono::microseconds>(*lastReply - *lastPing);
            history_.roundTrip(std::chrono::system_clock::now(), *roundTrip);
            showMeasures();
        }
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

void ViewController::showMeasures() {
    const auto setText = [this](const char* name, const QString& text) {
        auto* label = outlet<QLabel>(name);
        if (label->text() != text) label->setText(text);
    };
    setText("RoundTripLab", roundTripLine(roundTrip));
    setText("ReplyAgeLab", replyAgeLine(lastReply ? std::optional(SteadyClock::now() - *lastReply)
                                                  : std::nullopt));
    setText("DroppedLab", droppedLine(oscServer ? droppedDatagrams(*oscServer) : 0));
}

void ViewController::showHistory() {
    if (!historyDialog) historyDialog = new LinkHistoryDialog(history_, this);
    historyDialog->reload();
    historyDialog->show();
    historyDialog->raise();
    historyDialog->activateWindow();
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
