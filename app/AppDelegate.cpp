#include "app/AppDelegate.hpp"

#include <QAction>
#include <QApplication>
#include <QKeySequence>
#include <QMessageBox>
#include <QPushButton>
#include <QStandardPaths>
#include <QWidget>
#include <QtDebug>

#include "support/FatalError.hpp"

namespace kavrin {

AppDelegate::AppDelegate(std::filesystem::path storeDirectory, QObject* parent)
    : QObject(parent), storeDirectory_(std::move(storeDirectory)) {}

AppDelegate::~AppDelegate() = default;

std::filesystem::path AppDelegate::defaultStoreDirectory() {
    const QString data = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    return std::filesystem::path(data.toStdString()) / "Kavrin";
}

PersistentContainer& AppDelegate::persistentContainer() {
    if (!persistentContainer_) {
        auto container = std::make_unique<PersistentContainer>("Kavrin_Store", storeDirectory_);
        container->loadPersistentStores(
            [](const std::string&, const std::optional<std::string>& error) {
                if (error) {
                    fatalError("Unresolved error " + *error);
                }
            });
        persistentContainer_ = std::move(container);
    }
    return *persistentContainer_;
}

void AppDelegate::saveAction() {
    StoreContext& context = persistentContainer().viewContext();
    if (!context.commitEditing()) {
        qWarning("%s unable to commit editing before saving", metaObject()->className());
    }
    if (!context.hasChanges()) {
        return;
    }
    try {
        context.save();
    } catch (const StoreContext::SaveError& error) {
        presentError(error.what());
    }
}

AppDelegate::TerminateReply AppDelegate::applicationShouldTerminate() {
    StoreContext& context = persistentContainer().viewContext();
    if (!context.commitEditing()) {
        qWarning("%s unable to commit editing to terminate", metaObject()->className());
        return TerminateReply::cancel;
    }
    if (!context.hasChanges()) {
        return TerminateReply::now;
    }
    try {
        context.save();
        return TerminateReply::now;
    } catch (const StoreContext::SaveError& error) {
        if (presentError(error.what())) {
            return TerminateReply::cancel;
        }
    }

    QMessageBox question(QMessageBox::Warning, QString(),
                         QCoreApplication::translate(
                             "AppDelegate", "Could not save changes while quitting. Quit anyway?",
                             "Quit without saves error question message"));
    question.setInformativeText(QCoreApplication::translate(
        "AppDelegate",
        "Quitting now will lose any changes you have made since the last successful save",
        "Quit without saves error question info"));
    QPushButton* quitAnyway = question.addButton(
        QCoreApplication::translate("AppDelegate", "Quit anyway", "Quit anyway button title"),
        QMessageBox::AcceptRole);
    QPushButton* cancel = question.addButton(
        QCoreApplication::translate("AppDelegate", "Cancel", "Cancel button title"),
        QMessageBox::RejectRole);
    question.setDefaultButton(quitAnyway);
    question.setEscapeButton(cancel);
    question.setWindowModality(Qt::ApplicationModal);
    question.exec();
    return question.clickedButton() == cancel ? TerminateReply::cancel : TerminateReply::now;
}

void AppDelegate::installActions(QWidget* window) {
    auto* quit = new QAction(QCoreApplication::translate("AppDelegate", "Quit"), window);
    quit->setShortcut(QKeySequence::Quit);
    quit->setShortcutContext(Qt::ApplicationShortcut);
    connect(quit, &QAction::triggered, this, &AppDelegate::terminate);
    window->addAction(quit);

    auto* save = new QAction(QCoreApplication::translate("AppDelegate", "Save"), window);
    save->setShortcut(QKeySequence::Save);
    save->setShortcutContext(Qt::ApplicationShortcut);
    connect(save, &QAction::triggered, this, &AppDelegate::saveAction);
    window->addAction(save);
}

void AppDelegate::terminate() {
    // A second request (another signal, another Ctrl+Q) while the first one's dialog is up.
    if (terminating_) {
        return;
    }
    terminating_ = true;
    const TerminateReply reply = applicationShouldTerminate();
    terminating_ = false;
    if (reply == TerminateReply::now) {
        // exit(), not quit(): quit() first asks every window to close, and ours refuse.
        QCoreApplication::exit(0);
    }
}

bool AppDelegate::presentError(const std::string& description) {
    QMessageBox::warning(nullptr, QCoreApplication::applicationName(),
                         QString::fromStdString(description));
    return false;
}

}  // namespace kavrin
