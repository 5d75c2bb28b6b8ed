#include "app/ViewController.hpp"

#include <QAction>
#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QMessageBox>
#include <QPalette>
#include <exception>

#include "app/MessageLogView.hpp"
#include "app/DroppedDatagrams.hpp"
#include "app/FindDevicesDialog.hpp"
#include "app/LinkLight.hpp"
#include "app/LinkStatusText.hpp"
#include "app/RoundTripPlot.hpp"
#include "osc/codec/OSCMessage.hpp"
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

bool isSocketPort(std::int64_t port) {
    return port >= 0 && port <= 65535;
}

// Ports are kept as typed (any 32-bit value may be stored); only a socket needs 0...65535.
std::uint16_t socketPort(std::int64_t port, const char* which) {
    if (!isSocketPort(port)) {
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
      timer(new QTimer(this)),
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
      link_(new MonitorLink(this->mainQueue, [this](const OSCMessage& message) { receive(message); }, this)),
      advertiser_(new MonitorAdvertiser(this->mainQueue, this)),
      log(std::move(log)) {
    Ui::MainWindow().setupUi(this);
    timer->setObjectName(QStringLiteral("PingTimer"));  // tests that drive the ticks stop it
    timer->setInterval(pingInterval);
    timer->setTimerType(Qt::PreciseTimer);
    connect(timer, &QTimer::timeout, this, &ViewController::sendPing);
    measuresTimer.setInterval(measuresInterval);
    connect(&measuresTimer, &QTimer::timeout, this, &ViewController::showMeasures);
    connect(link_, &MonitorLink::connectionChanged, this, &ViewController::showMeasures);

    auto* showHistoryAction = new QAction(QStringLiteral("Link History\u2026"), this);
    showHistoryAction->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_H));
    connect(showHistoryAction, &QAction::triggered, this, &ViewController::showHistory);
    addAction(showHistoryAction);
    auto* showFindAction = new QAction(QStringLiteral("Find\u2026"), this);
    connect(showFindAction, &QAction::triggered, this, &ViewController::showFind);
    setContextMenuPolicy(Qt::CustomContextMenu);
    connect(this, &QWidget::customContextMenuRequested, this,
            [this, showHistoryAction, showFindAction](const QPoint& at) {
                QMenu menu(this);
                menu.addAction(showFindAction);
                menu.addAction(showHistoryAction);
                menu.exec(mapToGlobal(at));
            });
}

// The server, the client and the connection close their sockets as they go.
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
    // Shown as udp when it names no other transport, and kept as stored until changed.
    MyTransport = defaults.transport.value();
    outlet<QComboBox>("TransportBox")
        ->setCurrentText(MonitorLink::nameOf(MonitorLink::transportNamed(MyTransport)));
    PingFromInPort = defaults.pingFromInPort.value();
    outlet<QCheckBox>("PingFromInPortBox")->setChecked(PingFromInPort);
    NumberPings = defaults.numberPings.value();
    outlet<QCheckBox>("NumberPingsBox")->setChecked(NumberPings);
    Advertise = defaults.advertise.value();
    advertiser_->setEnabled(Advertise);

    const std::uint16_t inPort = socketPort(MyInPort, "incoming");
    oscServer = OSCServer::create(inPort, nullptr, mainQueue, OSCServer::TimeTagMode::ignore,
                                  nullptr);
    oscServer->setKernelReceiveBufferSize(kernelReceiveBuffer);
    oscServer->setHandler(
        [self = QPointer<ViewController>(this)](const OSCMessage& message, const OSCTimeTag&) {
            if (self) {
                self->receive(message);
            }
        });
    try {
        oscServer->start();
        advertiser_->serverStarted(oscServer->boundPort());
    } catch (const std::exception& error) {
        // No retry: the monitor runs on without a server and stays red.
        log("Failed to start OSC Server on port " + decimal(MyInPort) + ": " + error.what());
    }
    // Printed after a failure too; deliberate.
    log("OSC Server started on port " + decimal(MyInPort));

    // Over tcp or slip the connection is made now, so that the first tick finds it up; a port
    // out of range stops the program at that tick, as over udp.
    if (MonitorLink::transportNamed(MyTransport) != MonitorLink::Transport::udp &&
        isSocketPort(MyOutPort)) {
        aimLink(static_cast<std::uint16_t>(MyOutPort));
    }
    showLink();
    outlet<RoundTripPlot>("RoundTripPlot")->setHistory(&history_);
    timer->start();
    measuresTimer.start();
}

void ViewController::sendPing() {
    const std::uint16_t port = socketPort(MyOutPort, "outgoing");
    aimLink(port);  // a change of transport, host or port takes effect here
    const bool fromInPort = PingFromInPort && link_->transport() == MonitorLink::Transport::udp;
    try {
        const auto number = link_->ping(MyOutMsg.toStdString(), MyOutIP.toStdString(), port,
                                        NumberPings, fromInPort ? oscServer.get() : nullptr);
        log("Sent OSC ping to " + MyOutIP.toStdString() + ":" + decimal(MyOutPort) +
            " \u2192 pattern " + MyOutMsg.toStdString());
        const auto now = std::chrono::system_clock::now();
        pingTimes.sent(number, SteadyClock::now(), history_.pingSent(now));
    } catch (const std::exception& error) {
        log(std::string("ERROR sending ping: ") + error.what());
    }

    // The reply to this ping usually arrives after the paint, so it counts at the next tick.
    paint(outlet<QWidget>("Background"), lightColour(OSCgood));
    outlet<QLabel>("StatusLab")->setText(lightText(OSCgood));
    history_.painted(std::chrono::system_clock::now(), OSCgood);
    tray_->painted(OSCgood);
    outlet<RoundTripPlot>("RoundTripPlot")->painted();
    OSCgood = false;
}

void ViewController::aimLink(std::uint16_t port) {
    link_->aim(MonitorLink::transportNamed(MyTransport), MyOutIP.toStdString(), port);
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
        if (const auto answer = pingTimes.answer(message, *lastReply)) {
            lastAnswer = answer;
            history_.pingAnswered(answer->keptAs, answer->roundTrip);
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
    const auto now = SteadyClock::now();
    setText("RoundTripLab", lastAnswer ? roundTripLine(lastAnswer->roundTrip, lastAnswer->late)
                                       : roundTripLine(std::nullopt));
    setText("ReplyAgeLab", replyAgeLine(lastReply ? std::optional(now - *lastReply) : std::nullopt));
    setText("DroppedLab", droppedLine(oscServer ? droppedDatagrams(*oscServer) : 0,
                                      link_->droppedPackets()));
    const QString connection = connectionLine(link_->connection(), now);
    setText("ConnectionLab", connection);
    outlet<QLabel>("ConnectionLab")->setVisible(!connection.isEmpty());
}

void ViewController::showLink() {
    // Over a connection the replies come on it; the server listens all the same.
    const bool stream = MonitorLink::transportNamed(MyTransport) != MonitorLink::Transport::udp;
    auto* inPortLabel = outlet<QLabel>("inPortLabel");
    inPortLabel->setText(stream ? QStringLiteral("Also listen on") : QStringLiteral("Listen on port"));
    inPortLabel->setToolTip(stream ? QStringLiteral("Replies come over the connection; UDP messages "
                                                    "to this port count too.")
                                   : QString());
    outlet<QCheckBox>("PingFromInPortBox")->setEnabled(!stream);
    showMeasures();
}

void ViewController::showHistory() {
    if (!historyDialog) historyDialog = new LinkHistoryDialog(history_, this);
    historyDialog->reload();
    historyDialog->show();
    historyDialog->raise();
    historyDialog->activateWindow();
}

void ViewController::showFind() {
    if (!findDialog) {
        findDialog = new FindDevicesDialog(mainQueue, *advertiser_, Advertise, this);
        connect(findDialog, &FindDevicesDialog::chosen, this, &ViewController::useDevice);
        connect(findDialog, &FindDevicesDialog::advertiseToggled, this, &ViewController::ChangeAdvertise);
    }
    findDialog->show();
    findDialog->raise();
    findDialog->activateWindow();
}

void ViewController::useDevice(const DeviceChoice& choice) {
    outlet<QLineEdit>("IpText")->setText(QString::fromStdString(choice.host));
    ChangeIP();
    outlet<QLineEdit>("OutPortText")->setText(QString::number(choice.port));
    ChangeOutPort();
    outlet<QComboBox>("TransportBox")->setCurrentText(MonitorLink::nameOf(choice.transport));
    ChangeTransport();
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

// The link follows at the next tick.
void ViewController::ChangeTransport() {
    MyTransport = outlet<QComboBox>("TransportBox")->currentText().toStdString();
    defaults.transport.set(MyTransport);
    showLink();
}

void ViewController::ChangePingFromInPort() {
    PingFromInPort = outlet<QCheckBox>("PingFromInPortBox")->isChecked();
    defaults.pingFromInPort.set(PingFromInPort);
}

void ViewController::ChangeNumberPings() {
    NumberPings = outlet<QCheckBox>("NumberPingsBox")->isChecked();
    defaults.numberPings.set(NumberPings);
}

void ViewController::ChangeAdvertise(bool on) {
    Advertise = on;
    defaults.advertise.set(Advertise);
    advertiser_->setEnabled(Advertise);
}

}  // namespace kavrin
