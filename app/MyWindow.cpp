#include "app/MyWindow.hpp"

#include <QEvent>
#include <QWindow>

namespace kavrin {

MyWindow::MyWindow(QWidget* window, QObject* parent) : QObject(parent), window_(window) {}

void MyWindow::windowDidLoad() {
    QWidget* window = window_;
    if (window == nullptr) {
        return;
    }
    window->setAttribute(Qt::WA_TranslucentBackground);
    // A title bar with a minimise button and no close button, above normal windows.
    Qt::WindowFlags flags = window->windowFlags();
    flags |= Qt::Window | Qt::CustomizeWindowHint | Qt::WindowTitleHint |
             Qt::WindowMinimizeButtonHint | Qt::WindowStaysOnTopHint;
    flags &= ~(Qt::WindowCloseButtonHint | Qt::WindowMaximizeButtonHint);
    window->setWindowFlags(flags);
    // QWidget keeps its opacity in 1/255 steps; the native window takes the exact value.
    constexpr qreal opacity = 0.85;
    window->setWindowOpacity(opacity);
    window->winId();  // creates the native window
    window->windowHandle()->setOpacity(opacity);
    // Window managers may still offer to close it (a menu entry, a key): refuse that too.
    window->installEventFilter(this);
}

bool MyWindow::eventFilter(QObject* watched, QEvent* event) {
    if (watched == window_ && event->type() == QEvent::Close) {
        event->ignore();
        return true;
    }
    return QObject::eventFilter(watched, event);
}

}  // namespace kavrin
