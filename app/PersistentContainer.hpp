#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "app/StoreContext.hpp"

struct sqlite3;

namespace kavrin {

// The application's data store: an SQLite database `directory`/`name`.sqlite with a view
// context for edits. The monitor keeps nothing in it; the quit flow consults it. Use from the
// GUI thread only.
class PersistentContainer {
  public:
    // Called once with the store's file path and, when it could not be opened, why.
    using LoadCompletion = std::function<void(const std::string& storeDescription,
                                              const std::optional<std::string>& error)>;

    PersistentContainer(std::string name, std::filesystem::path directory);
    ~PersistentContainer();
    PersistentContainer(const PersistentContainer&) = delete;
    PersistentContainer& operator=(const PersistentContainer&) = delete;

    const std::string& name() const { return name_; }
    std::filesystem::path storePath() const;

    // Creates the directory and the database when they do not exist yet, then opens it.
    void loadPersistentStores(const LoadCompletion& completion);

    StoreContext& viewContext() { return viewContext_; }

  private:
    std::optional<std::string> open();

    std::string name_;
    std::filesystem::path directory_;
    std::unique_ptr<sqlite3, int (*)(sqlite3*)> database_;
    StoreContext viewContext_;
};

}  // namespace kavrin
