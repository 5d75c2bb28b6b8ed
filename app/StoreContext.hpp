#pragma once

#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

struct sqlite3;

namespace kavrin {

// The data store's view context: pending edits held in memory until they are saved, in one
// transaction, to the store's SQLite database. Use from the GUI thread only.
class StoreContext {
  public:
    // A failed save, with SQLite's description of why.
    class SaveError : public std::runtime_error {
      public:
        using std::runtime_error::runtime_error;
    };

    // An editor holding input not yet in the context; it returns false when it cannot commit.
    void addEditor(std::function<bool()> commitEditing);
    // Asks every editor to commit; false as soon as one cannot.
    bool commitEditing() const;

    void setValue(const std::string& key, const std::string& value);  // a pending edit
    bool hasChanges() const { return !pending_.empty(); }

    // Writes the pending edits in one transaction. On failure nothing is written, the edits
    // stay pending and SaveError is thrown.
    void save();

  private:
    friend class PersistentContainer;  // attaches the database once it is open

    sqlite3* database_ = nullptr;  // owned by the container; nullptr until loaded
    std::vector<std::function<bool()>> editors_;
    std::map<std::string, std::string> pending_;
};

}  // namespace kavrin
