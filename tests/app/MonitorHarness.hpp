#pragma once

#include <gtest/gtest.h>

#include <QLabel>
#include <QLineEdit>
#include <QTimer>
#include <QtTest/QTest>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "PrivateEnvironment.hpp"
#include "app/MonitorSettings.hpp"
#include "app/QtMainQueue.hpp"
#include "app/ViewController.hpp"

namespace kavrin::test {

// The monitor in this process, on private settings set before start(), logging into `lines`;
// tests drive its ticks (tick()) instead of its timer.
class MonitorHarness : public ::testing::Test {
  protected:
    void start() {
        controller = std::make_unique<ViewController>(
            *settings, std::make_shared<QtMainQueue>(), [this](const std::string& line) {
                lines.push_back(line);
                if (echoToStderr) {  // lets a death test see what was logged before the end
                    std::fprintf(stderr, "%s\n", line.c_str());
                }
            });
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

    QString status() { return widget<QLabel>("StatusLab")->text(); }
    QColor colour() { return widget<QWidget>("Background")->palette().color(QPalette::Window); }

    // Waits until a line starting with `prefix` is logged after the first `from` lines.
    bool logged(const std::string& prefix, std::size_t from, int boundMs = 5000) {
        return QTest::qWaitFor(
            [&] {
                for (std::size_t i = from; i < lines.size(); ++i) {
                    if (lines[i].rfind(prefix, 0) == 0) return true;
                }
                return false;
            },
            boundMs);
    }

    PrivateEnvironment environment;
    std::unique_ptr<MonitorSettings> settings = std::make_unique<MonitorSettings>();
    std::vector<std::string> lines;
    bool echoToStderr = false;
    std::unique_ptr<ViewController> controller;
};

}  // namespace kavrin::test
