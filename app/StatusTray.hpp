#pragma once

#include <QIcon>
#include <QObject>
#include <QPointer>
#include <optional>

class QSystemTrayIcon;
class QWidget;

namespace kavrin {

// The light in the desktop's system tray: a filled circle in the light's colour with the status
// as its tooltip, and a notification each time the light changes after its first paint.
// Clicking it brings the window up. Where the desktop has no tray, nothing shows (it looks
// again at each paint, since a panel may start later). Use from the GUI thread.
class StatusTray : public QObject {
    Q_OBJECT

  public:
    explicit StatusTray(QWidget* window);

    // Every paint of the light.
    void painted(bool alive);
    // The icon in the tray; nullptr while there is no tray.
    QSystemTrayIcon* icon() const { return icon_; }

    static QIcon lightIcon(bool alive);

  private:
    QPointer<QWidget> window_;
    QSystemTrayIcon* icon_ = nullptr;  // a child of this
    std::optional<bool> alive_;        // the last paint
};

}  // namespace kavrin
