#pragma once

#include <QPointer>
#include <QString>
#include <QTimer>
#include <QWidget>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "app/LinkHistory.hpp"
#include "app/LinkHistoryDialog.hpp"
#include "app/MonitorAdvertiser.hpp"
#include "app/MonitorLink.hpp"
#include "app/MonitorSettings.hpp"
#include "app/PingTimes.hpp"
#include "app/StatusTray.hpp"
#include "app/StdoutLines.hpp"
#include "osc/transport/OSCServer.hpp"

class QMessageBox;

namespace kavrin {

class DispatchQueue;
class FindDevicesDialog;
struct DeviceChoice;
struct OSCMessage;

// The link check: every 2 s it pings the configured host and port, paints the status light
// from the replies that arrived since the previous tick, and logs every event as one line.
// The ping goes over the transport the preferences choose (MonitorLink); replies count whether
// they come to the server or over the connection. Beside the light it shows the round trip of
// the last ping answered and the age of the last reply (on a steady clock), the connection's
// state, what was dropped, and a plot of the round trips; it records each paint and ping in the
// link history (`historyFile`) and mirrors the light in the system tray. The history opens from
// the context menu or Ctrl+H; the Find… window (context menu, or the button by the host) lists the
// OSC devices on the network and fills the fields with the one chosen. The monitor's own server
// is advertised with zeroconf unless the preferences say not to. Its widgets come from MainWindow.ui and are looked up by name where
// they are used; a missing one is fatal. Everything here runs on the GUI thread: the timers, the
// deliveries of the server and the connection (through `mainQueue`) and the field actions.
class ViewController : public QWidget {
    Q_OBJECT

  public:
    using LogLine = std::function<void(const std::string& line)>;

    // `mainQueue` must run its work on this GUI thread; the server delivers messages there.
    ViewController(MonitorSettings& defaults, std::shared_ptr<DispatchQueue> mainQueue,
                   LogLine log = StdoutLines::write,
                   std::filesystem::path historyFile = LinkHistory::defaultFile(),
                   QWidget* parent = nullptr);
    ~ViewController() override;

    // Start-up once the layout is in place: load the settings into the fields, start the
    // server on the incoming port, with a kernel receive buffer large enough to ride out a
    // flood, connect to the console over tcp or slip, and start the 2 s ping timer (first ping
    // 2 s from now).
    void viewDidLoad();

    // Opens the link history window (the context menu's "Link History…", Ctrl+H).
    void showHistory();
    StatusTray& tray() { return *tray_; }
    MonitorAdvertiser& advertiser() { return *advertiser_; }
    LinkHistory& history() { return history_; }
    MonitorLink& link() { return *link_; }

    // Whether `address` contains `expected`, treating canonically equivalent Unicode as
    // equal. An empty `expected` is contained in nothing.
    static bool addressContains(const QString& address, const QString& expected);

  public slots:
    void sendPing();  // the timer's action
    // Opens the Find… window (the context menu's "Find…", the button by the host field).
    void showFind();

    // The field actions, connected by the layout to each field's editingFinished.
    void ChangeIP();
    void ChangeOutPort();
    void ChangeInPort();
    void ChangeOutMsg();
    void ChangeInMsgText();
    // The link row's actions, connected by the layout to the user's choices.
    void ChangeTransport();
    void ChangePingFromInPort();
    void ChangeNumberPings();
    // The Find… window's "Advertise" box.
    void ChangeAdvertise(bool on);

  private:
    // Fills the host, the port and the link as if typed and chosen, and stores them.
    void useDevice(const DeviceChoice& choice);
    void receive(const OSCMessage& message);
    void setExpectedReply(QString text);
    void aimLink(std::uint16_t port);
    void showMeasures();  // the round trip, the reply's age, the connection and the drops
    void showLink();      // what the link row's choices mean for the fields
    template <class Widget>
    Widget* outlet(const char* name) const;
    mutable std::map<std::string, QPointer<QObject>, std::less<>> outlets;  // found by outlet()

    QString MyOutIP = QString(MonitorSettings::defaultIP);
    std::int64_t MyOutPort = MonitorSettings::defaultOutPort;
    std::int64_t MyInPort = MonitorSettings::defaultInPort;
    QString MyOutMsg = QString(MonitorSettings::defaultPing);
    QString MyInMsg = QString(MonitorSettings::defaultReply);
    std::string MyTransport = MonitorSettings::defaultTransport;  // as stored
    bool PingFromInPort = false;
    bool NumberPings = false;
    bool Advertise = true;
    bool OSCgood = false;  // a matching reply arrived since the last tick
    // MyInMsg in the form each received address is checked against, and its two log lines.
    std::string expectedNFC;
    std::string matchedLine;
    std::string unmatchedLine;

    using SteadyClock = std::chrono::steady_clock;
    PingTimes pingTimes;
    std::optional<SteadyClock::time_point> lastReply;  // the last matching reply
    std::optional<PingTimes::Answer> lastAnswer;       // of the last ping answered

    MonitorSettings& defaults;
    QTimer* timer;  // a child
    QTimer measuresTimer;
    LinkHistory history_;
    StatusTray* tray_;                          // a child
    QPointer<LinkHistoryDialog> historyDialog;  // a child, made when first asked for
    QPointer<FindDevicesDialog> findDialog;     // a child, made when first asked for
    QMessageBox* alert;  // the in-port notice, reused; owned as a child
    std::shared_ptr<DispatchQueue> mainQueue;
    MonitorLink* link_;                            // a child
    MonitorAdvertiser* advertiser_;                // a child
    std::shared_ptr<OSCServer> oscServer;
    LogLine log;
};

}  // namespace kavrin
