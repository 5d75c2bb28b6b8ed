#pragma once

#include <QObject>
#include <filesystem>
#include <memory>
#include <string>

#include "app/PersistentContainer.hpp"

class QWidget;

namespace kavrin {

// The application's delegate: owns the data store "Kavrin_Store" (created on the first save or
// quit request) and decides whether the application may quit. Use from the GUI thread; its
// dialogs are application-modal.
class AppDelegate : public QObject {
    Q_OBJECT

  public:
    enum class TerminateReply { cancel = 0, now = 1 };

    // The store lives in `storeDirectory`, by default $XDG_DATA_HOME/Kavrin.
    explicit AppDelegate(std::filesystem::path storeDirectory = defaultStoreDirectory(),
                         QObject* parent = nullptr);
    ~AppDelegate() override;

    static std::filesystem::path defaultStoreDirectory();

    // The store, loaded on first use; a store that will not load is fatal.
    PersistentContainer& persistentContainer();

    // Whether the application may quit now: saves pending changes and, when that fails, asks.
    TerminateReply applicationShouldTerminate();

    // Adds the Quit (Ctrl+Q) and Save (Ctrl+S) shortcuts to `window`.
    void installActions(QWidget* window);

  public slots:
    // Saves pending changes; a failure is shown to the user.
    void saveAction();
    // The quit request: quits the application when applicationShouldTerminate allows it.
    void terminate();

  private:
    // Shows `description` as a warning; returns whether the error was recovered from (never).
    bool presentError(const std::string& description);

    std::filesystem::path storeDirectory_;
    std::unique_ptr<PersistentContainer> persistentContainer_;
    bool terminating_ = false;  // a quit request is being decided (its dialogs spin the loop)
};

}  // namespace kavrin
