#pragma once

#include <QLabel>
#include <QLineEdit>
#include <QTimer>
#include <QtTest/QTest>
#include <algorithm>

#include "PrivateEnvironment.hpp"
#include "app/MonitorSettings.hpp"
#include "app/QtMainQueue.hpp"
#include "app/ViewController.hpp"
#include "tests/UdpPeer.hpp"

namespace kavrin::test {

// The monitor in this process, on private settings set before start(), logging into `lines`;
// tests drive its ticks (tick()) instead of its timer. Unless the settings say otherwise, it
// pings `pingSink` on loopback and listens on `inPort`, where `replier` answers.
class MonitorHarness : public ::testing::Test {
  protected:
    MonitorHarness() {
        settings->store().setValue("ip", "127.0.0.1");
        settings->store().setValue("OutPort", pingSink.port());
        settings->store().setValue("InPort", inPort);
    }

    void start() {
        controller = std::make_unique<ViewController>(
            *settings, std::make_shared<QtMainQueue>(),
            [this](const std::string& line) { lines.push_back(line); });
        controller->viewDidLoad();
        controller->findChild<QTimer*>(QStringLiteral("PingTimer"))->stop();
    }

    template <class Widget>
    Widget* widget(const char* name) {
        auto* found = controller->findChild<Widget*>(QLatin1String(name));
        EXPECT_NE(found, nullptr) << name;
        return found;
    }

    void edit(const char* field, const QString& text) {
        auto* lineEdit = widget<QLineEdit>(field);
        lineEdit->setText(text);
        emit lineEdit->editingFinished();
    }

    // One tick; returns the line it logged.
    std::string tick() {
        controller->sendPing();
        return lines.back();
    }

    // Sends a message with `address` to the monitor and waits until it has logged it; the lines.
    std::vector<std::string> reply(const std::string& address) {
        const std::size_t before = lines.size();
        replier.sendTo(inPort, oscMessageBytes(address));
        EXPECT_TRUE(QTest::qWaitFor([&] { return lines.size() >= before + 2; }, 5000))
            << "no reply logged for " << address;
        return {lines.begin() + static_cast<std::ptrdiff_t>(before), lines.end()};
    }

    std::vector<std::uint8_t> nextPing() {
        auto ping = pingSink.receive(std::chrono::seconds(5));
        EXPECT_TRUE(ping.has_value()) << "no ping arrived";
        return ping.value_or(std::vector<std::uint8_t>{});
    }

    QString label(const char* name) { return widget<QLabel>(name)->text(); }
    QString status() { return label("StatusLab"); }
    QColor colour() { return widget<QWidget>("Background")->palette().color(QPalette::Window); }

    // Waits until the label `name` shows `text`, or contains it when `part`; if it never does,
    // the failure says what it shows.
    ::testing::AssertionResult shows(const char* name, const QString& text, bool part = false) {
        if (QTest::qWaitFor([&] { return part ? label(name).contains(text) : label(name) == text; },
                            5000)) {
            return ::testing::AssertionSuccess();
        }
        return ::testing::AssertionFailure() << name << ": " << label(name).toStdString();
    }

    // Waits until a line starting with `prefix` is logged after the first `from` lines.
    bool logged(const std::string& prefix, std::size_t from) {
        return QTest::qWaitFor([&] {
            return std::any_of(lines.begin() + static_cast<std::ptrdiff_t>(from), lines.end(),
                               [&](const std::string& line) { return line.starts_with(prefix); });
        }, 5000);
    }

    PrivateEnvironment environment;
    UdpPeer pingSink;
    UdpPeer replier;
    std::uint16_t inPort = freeUdpPort();
    std::unique_ptr<MonitorSettings> settings = std::make_unique<MonitorSettings>();
    std::vector<std::string> lines;
    std::unique_ptr<ViewController> controller;
};

}  // namespace kavrin::test
