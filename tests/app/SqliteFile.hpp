#pragma once

#include <sqlite3.h>

#include <QString>

namespace kavrin::test {

// A connection of the test's own to one of the monitor's SQLite files, as another program would
// open it; it waits up to 5 s for the monitor's transactions.
class SqliteFile {
  public:
    using Rows = std::vector<std::vector<std::string>>;

    explicit SqliteFile(const QString& path, int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE) {
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
