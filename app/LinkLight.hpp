#pragma once

#include <QColor>
#include <QString>

namespace kavrin {

// The light's two states, as the window and the tray show them.
inline QColor lightColour(bool alive) {
    return alive ? QColor(0x00, 0xFF, 0x00) : QColor(0xFF, 0x00, 0x00);
}

inline QString lightText(bool alive) {
    return alive ? QStringLiteral("OSC IS ALIVE") : QStringLiteral("OSC IS DEAD!!!");
}

}  // namespace kavrin
