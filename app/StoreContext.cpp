#include "app/StoreContext.hpp"

#include <sqlite3.h>

#include <memory>

namespace kavrin {
namespace {

using Statement = std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)>;

[[noreturn]] void fail(sqlite3* database) {
    throw StoreContext::SaveError(sqlite3_errmsg(database));
}

void execute(sqlite3* database, const char* sql) {
    if (sqlite3_exec(database, sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
        fail(database);
    }
}

}  // namespace

void StoreContext::addEditor(std::function<bool()> commitEditing) {
    editors_.push_back(std::move(commitEditing));
}

bool StoreContext::commitEditing() const {
    for (const auto& commit : editors_) {
        if (!commit()) {
            return false;
        }
    }
    return true;
}

void StoreContext::setValue(const std::string& key, const std::string& value) {
    pending_[key] = value;
}

void StoreContext::save() {
    if (database_ == nullptr) {
        throw SaveError("the store is not loaded");
    }
    // IMMEDIATE takes the write lock at once, so a locked store fails before anything is done.
    execute(database_, "BEGIN IMMEDIATE");
    try {
        sqlite3_stmt* raw = nullptr;
        if (sqlite3_prepare_v2(database_,
                               "INSERT OR REPLACE INTO objects (key, value) VALUES (?, ?)", -1,
                               &raw, nullptr) != SQLITE_OK) {
            fail(database_);
        }
        const Statement insert(raw, &sqlite3_finalize);
        for (const auto& [key, value] : pending_) {
            sqlite3_reset(insert.get());
            if (sqlite3_bind_text(insert.get(), 1, key.data(), static_cast<int>(key.size()),
                                  SQLITE_TRANSIENT) != SQLITE_OK ||
                sqlite3_bind_text(insert.get(), 2, value.data(), static_cast<int>(value.size()),
                                  SQLITE_TRANSIENT) != SQLITE_OK ||
                sqlite3_step(insert.get()) != SQLITE_DONE) {
                fail(database_);
            }
        }
        execute(database_, "COMMIT");
    } catch (const SaveError&) {
        sqlite3_exec(database_, "ROLLBACK", nullptr, nullptr, nullptr);
        throw;
    }
    pending_.clear();
}

}  // namespace kavrin
