#pragma once

#include <sqlite3.h>

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

// Points the user's configuration and data, for this process and the monitors it starts, at a
// fresh temporary directory, so that the settings file and the store of one test never meet
// those of another, or the user's.
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

// A connection of the test's own to one of the monitor's SQLite files, as another program would
// open it; it waits up to 5 s for the monitor's transactions.
class SqliteFile {
  public:
    using Rows = std::vector<std::vector<std::string>>;

    explicit SqliteFile(const QString& path,
                        int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE) {
        EXPECT_EQ(sqlite3_open_v2(path.toUtf8().constData(), &db_, flags, nullptr), SQLITE_OK);
        sqlite3_busy_timeout(db_, 5000);
    }
    ~SqliteFile() { sqlite3_close(db_); }

    // Runs `sql`; the rows it selects, each column as text ("" for NULL).
    Rows rows(const char* sql) {
        Rows rows;
        const auto add = [](void* to, int count, char** columns, char**) {
            auto& row = static_cast<Rows*>(to)->emplace_back();
            for (int i = 0; i < count; ++i) row.emplace_back(columns[i] ? columns[i] : "");
            return 0;
        };
        EXPECT_EQ(sqlite3_exec(db_, sql, add, &rows, nullptr), SQLITE_OK) << sqlite3_errmsg(db_);
        return rows;
    }

  private:
    sqlite3* db_ = nullptr;
};

}  // namespace kavrin::test
