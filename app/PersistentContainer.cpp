#include "app/PersistentContainer.hpp"

#include <sqlite3.h>

#include <system_error>

namespace kavrin {

PersistentContainer::PersistentContainer(std::string name, std::filesystem::path directory)
    : name_(std::move(name)),
      directory_(std::move(directory)),
      database_(nullptr, &sqlite3_close) {}

PersistentContainer::~PersistentContainer() = default;

std::filesystem::path PersistentContainer::storePath() const {
    return directory_ / (name_ + ".sqlite");
}

void PersistentContainer::loadPersistentStores(const LoadCompletion& completion) {
    const std::optional<std::string> error = open();
    completion(storePath().string(), error);
}

std::optional<std::string> PersistentContainer::open() {
    std::error_code created;
    std::filesystem::create_directories(directory_, created);
    if (created) {
        return "cannot create " + directory_.string() + ": " + created.message();
    }
    sqlite3* raw = nullptr;
    const int opened = sqlite3_open_v2(storePath().c_str(), &raw,
                                       SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    std::unique_ptr<sqlite3, int (*)(sqlite3*)> database(raw, &sqlite3_close);
    if (opened != SQLITE_OK) {
        return "cannot open " + storePath().string() + ": " +
               (raw != nullptr ? sqlite3_errmsg(raw) : sqlite3_errstr(opened));
    }
    // The model: one table of keyed values, which the monitor itself leaves empty.
    if (sqlite3_exec(raw,
                     "CREATE TABLE IF NOT EXISTS objects (key TEXT PRIMARY KEY NOT NULL, "
                     "value TEXT NOT NULL)",
                     nullptr, nullptr, nullptr) != SQLITE_OK) {
        return "cannot read " + storePath().string() + ": " + sqlite3_errmsg(raw);
    }
    database_ = std::move(database);
    viewContext_.database_ = database_.get();
    return std::nullopt;
}

}  // namespace kavrin
