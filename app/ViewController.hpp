#pragma once

#include <QPointer>
#include <QString>
#include <QTimer>
#include <QWidget>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "app/MonitorSettings.hpp"
#include "app/StdoutLines.hpp"
#include "osc/transport/OSCClient.hpp"
#include "osc/transport/OSCServer.hpp"

class QMessageBox;

namespace kavrin {

class DispatchQueue;
struct OSCMessage;

// The link check: every 2 s it pings the configured host and port, paints the status light
// from the replies that arrived since the previous tick, and logs every event as one line.
// Its widgets come from MainWindow.ui and are looked up by name where they are used; a missing
// one is fatal. Everything here runs on the GUI thread: the timer, the server's deliveries
// (through `mainQueue`) and the field actions.
class ViewController : public QWidget {
    Q_OBJECT

  public:
    using LogLine = std::function<void(const std::string& line)>;

    // `mainQueue` must run its work on this GUI thread; the server delivers messages there.
    ViewController(MonitorSettings& defaults, std::shared_ptr<DispatchQueue> mainQueue,
                   LogLine log = StdoutLines::write, QWidget* parent = nullptr);
    ~ViewController() override;

    // Start-up once the layout is in place: load the settings into the fields, start the
    // server on the incoming port and the 2 s ping timer (first ping 2 s from now).
    void viewDidLoad();

    // Whether `address` contains `expected`, treating canonically equivalent Unicode as
    // equal. An empty `expected` is contained in nothing.
    static bool addressContains(const QString& address, const QString& expected);

  public slots:
    void sendPing();  // the timer's action

    // The field actions, connected by the layout to each field's editingFinished.
    void ChangeIP();
    void ChangeOutPort();
    void ChangeInPort();
    void ChangeOutMsg();
    void ChangeInMsgText();

  private:
    void receive(const OSCMessage& message);
    void setExpectedReply(QString text);
    template <class Widget>
    Widget* outlet(const char* name) const;
    mutable std::map<std::string, QPointer<QObject>, std::less<>> outlets;  // found by outlet()

    QString MyOutIP = QString(MonitorSettings::defaultIP);
    std::int64_t MyOutPort = MonitorSettings::defaultOutPort;
    std::int64_t MyInPort = MonitorSettings::defaultInPort;
    QString MyOutMsg = QString(MonitorSettings::defaultPing);
    QString MyInMsg = QString(MonitorSettings::defaultReply);
    bool OSCgood = false;  // a matching reply arrived since the last tick
    // MyInMsg in the form each received address is checked against, and its two log lines.
    std::string expectedNFC;
    std::string matchedLine;
    std::string unmatchedLine;

    MonitorSettings& defaults;
    QTimer timer;
    QMessageBox* alert;  // the in-port notice, reused; owned as a child
    OSCClient oscClient;
    std::shared_ptr<OSCServer> oscServer;
    std::shared_ptr<DispatchQueue> mainQueue;
    LogLine log;
};

}  // namespace kavrin
