#pragma once

#include <QSettings>
#include <QString>
#include <QTemporaryDir>
#include <cstdint>

#include "tests/transport/OpensslProcess.hpp"

namespace kavrin::test {

// Points this process, and the monitors it starts, at a system bus that does not exist: no test
// meets an Avahi daemon, not even the machine's own, so none advertises on the network. The
// zeroconf tests bring their own (tests/discovery/zeroconf).
inline void withoutAvahi() {
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/kavrin-tests/bus");
}

// Points the user's configuration and data at a fresh temporary directory, so that the
// settings file and the store of one test never meet those of another, or the user's.
class PrivateEnvironment {
  public:
    PrivateEnvironment() {
        qputenv("XDG_CONFIG_HOME", configHome().toUtf8());
        qputenv("XDG_DATA_HOME", dataHome().toUtf8());
        // QSettings reads XDG_CONFIG_HOME once per process.
        QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, configHome());
        QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, configHome());
    }

    QString configHome() const { return directory_.filePath(QStringLiteral("config")); }
    QString dataHome() const { return directory_.filePath(QStringLiteral("data")); }
    QString settingsFile() const { return configHome() + QStringLiteral("/Kavrin/Kavrin.conf"); }
    QString storeFile() const { return dataHome() + QStringLiteral("/Kavrin/Kavrin_Store.sqlite"); }

    // For a monitor started as a program of its own: pings to `outPort` on loopback, listening on
    // `inPort`.
    void storeLoopbackLink(std::uint16_t outPort, std::uint16_t inPort) const {
        QSettings stored(settingsFile(), QSettings::IniFormat);
        stored.setValue("ip", "127.0.0.1");
        stored.setValue("OutPort", outPort);
        stored.setValue("InPort", inPort);
    }

    // The built monitor as a child process on these settings and data, on Qt's `platform`, with
    // `more` variables ("NAME=value").
    std::unique_ptr<tcpTest::ChildProcess> startMonitor(const std::string& platform = "offscreen",
                                                        std::vector<std::string> more = {}) const {
        more.push_back("QT_QPA_PLATFORM=" + platform);
        more.push_back("XDG_CONFIG_HOME=" + configHome().toStdString());
        more.push_back("XDG_DATA_HOME=" + dataHome().toStdString());
        return std::make_unique<tcpTest::ChildProcess>(
            KAVRIN_MONITOR_PATH, std::vector<std::string>{},
            tcpTest::ChildProcess::Errors::separate, std::move(more));
    }

  private:
    QTemporaryDir directory_;
};

}  // namespace kavrin::test
