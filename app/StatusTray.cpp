#include "app/StatusTray.hpp"

#include <QPainter>
#include <QPixmap>
#include <QSystemTrayIcon>
#include <QWidget>

#include "app/LinkLight.hpp"

namespace kavrin {

StatusTray::StatusTray(QWidget* window) : QObject(window), window_(window) {}

QIcon StatusTray::lightIcon(bool alive) {
    QIcon icon;
    for (const int size : {16, 22, 32, 64}) {
        QPixmap pixmap(size, size);
        pixmap.fill(Qt::transparent);
        QPainter painter(&pixmap);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setPen(QPen(lightColour(alive).darker(160), size / 16.0));
        painter.setBrush(lightColour(alive));
        const qreal inset = size / 16.0;
        painter.drawEllipse(QRectF(inset, inset, size - 2 * inset, size - 2 * inset));
        painter.end();
        icon.addPixmap(pixmap);
    }
    return icon;
}

void StatusTray::painted(bool alive) {
    const std::optional<bool> before = alive_;
    alive_ = alive;
    const bool made = icon_ == nullptr;
    if (made) {
        if (!QSystemTrayIcon::isSystemTrayAvailable()) return;
        icon_ = new QSystemTrayIcon(this);
        connect(icon_, &QSystemTrayIcon::activated, this, [this] {
            if (window_) {
                window_->showNormal();
                window_->raise();
                window_->activateWindow();
            }
        });
    } else if (before == alive) {
        return;
    }
    icon_->setIcon(lightIcon(alive));
    icon_->setToolTip(lightText(alive));
    // Shown once it has its icon: shown without one, Qt warns on stderr ("No Icon set").
    if (made) icon_->show();
    if (before.has_value() && *before != alive) {
        icon_->showMessage(QStringLiteral("Kavrin"), lightText(alive), lightIcon(alive), 10'000);
    }
}

}  // namespace kavrin
