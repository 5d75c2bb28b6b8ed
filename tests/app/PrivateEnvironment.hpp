#pragma once

#include <QSettings>
#include <QString>
#include <QTemporaryDir>

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

  private:
    QTemporaryDir directory_;
};

}  // namespace kavrin::test
