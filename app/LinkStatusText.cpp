#include "app/LinkStatusText.hpp"

namespace kavrin {

using namespace std::chrono;

QString roundTripText(microseconds time) {
    const auto tenths = (time.count() + 50) / 100;
    if (tenths < 100) {
        return QStringLiteral("%1.%2 ms").arg(tenths / 10).arg(tenths % 10);
    }
    return QStringLiteral("%1 ms").arg((time.count() + 500) / 1000);
}

QString roundTripLine(std::optional<microseconds> time) {
    return QStringLiteral("round trip ") + (time ? roundTripText(*time) : QStringLiteral("\u2013"));
}

// Whole units are shown as they are reached: 9.96 s is still "9.9 s".
QString replyAgeLine(std::optional<steady_clock::duration> age) {
    if (!age) return QStringLiteral("no reply yet");
    const auto tenths = duration_cast<milliseconds>(*age).count() / 100;
    const auto s = tenths / 10;
    QString text;
    if (s < 10) {
        text = QStringLiteral("%1.%2 s").arg(s).arg(tenths % 10);
    } else if (s < 60) {
        text = QStringLiteral("%1 s").arg(s);
    } else if (s < 3600) {
        text = QStringLiteral("%1 min %2 s").arg(s / 60).arg(s % 60, 2, 10, QLatin1Char('0'));
    } else {
        text = QStringLiteral("%1 h %2 min").arg(s / 3600).arg(s / 60 % 60, 2, 10, QLatin1Char('0'));
    }
    return QStringLiteral("last reply %1 ago").arg(text);
}

QString droppedLine(std::uint64_t count) {
    return QStringLiteral("%1 %2 dropped (not OSC or undecodable)")
        .arg(count)
        .arg(count == 1 ? QStringLiteral("datagram") : QStringLiteral("datagrams"));
}

QString durationText(milliseconds duration) {
    const auto s = duration_cast<seconds>(duration + milliseconds(500)).count();
    return QStringLiteral("%1:%2:%3")
        .arg(s / 3600)
        .arg(s / 60 % 60, 2, 10, QLatin1Char('0'))
        .arg(s % 60, 2, 10, QLatin1Char('0'));
}

}  // namespace kavrin
