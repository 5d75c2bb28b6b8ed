#include "app/LinkStatusText.hpp"

#include <algorithm>

namespace kavrin {

using namespace std::chrono;

QString roundTripText(microseconds time) {
    const auto tenths = (time.count() + 50) / 100;
    if (tenths < 100) {
        return QStringLiteral("%1.%2 ms").arg(tenths / 10).arg(tenths % 10);
    }
    return QStringLiteral("%1 ms").arg((time.count() + 500) / 1000);
}

QString roundTripLine(std::optional<microseconds> time, bool late) {
    return QStringLiteral("round trip ") + (time ? roundTripText(*time) : QStringLiteral("\u2013")) +
           (time && late ? QStringLiteral(", late") : QString());
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

QString droppedLine(std::uint64_t datagrams, std::optional<std::uint64_t> packets) {
    const auto counted = [](std::uint64_t count, const char* one, const char* many) {
        return QStringLiteral("%1 %2").arg(count).arg(QLatin1String(count == 1 ? one : many));
    };
    return counted(datagrams, "datagram", "datagrams") +
           (packets ? QStringLiteral(", ") + counted(*packets, "packet", "packets") : QString()) +
           QStringLiteral(" dropped (not OSC or undecodable)");
}

QString connectionLine(const LinkConnection& connection, steady_clock::time_point now) {
    using State = LinkConnection::State;
    if (connection.state == State::none) return {};
    const QString reason = connection.reason ? QString::fromStdString(*connection.reason) : QString();
    // A connection that never opened was refused or could not be made; one that had, closed.
    const QString ended = connection.wasConnected
                              ? (reason.isEmpty() ? QStringLiteral("closed by the console")
                                                  : QStringLiteral("closed (%1)").arg(reason))
                          : connection.refused ? QStringLiteral("refused")
                                               : QStringLiteral("could not connect (%1)").arg(reason);
    QString state;
    switch (connection.state) {
        case State::connecting:
            state = connection.reason || connection.wasConnected
                        ? QStringLiteral("connecting\u2026 (last: %1)").arg(ended)
                        : QStringLiteral("connecting\u2026");
            break;
        case State::connected:
            state = QStringLiteral("connected, replies come over it");
            break;
        case State::waiting: {
            const auto left = connection.retryAt ? std::max(*connection.retryAt - now, steady_clock::duration())
                                                 : steady_clock::duration();
            const auto tenths = (duration_cast<milliseconds>(left).count() + 99) / 100;
            state = QStringLiteral("%1, retrying in %2.%3 s").arg(ended).arg(tenths / 10).arg(tenths % 10);
            break;
        }
        case State::none:
            break;
    }
    QString line = QStringLiteral("%1 %2:%3: %4")
                       .arg(QString::fromStdString(connection.transport),
                            QString::fromStdString(connection.host))
                       .arg(connection.port)
                       .arg(state);
    if (const auto& hint = connection.framingHint) {
        line += (hint->fromBytes
                     ? QStringLiteral("\nThe console's bytes look like %1 framing: set the link to %1?")
                     : QStringLiteral("\nThe console hung up without answering: does it expect %1?"))
                    .arg(QString::fromStdString(hint->framing));
    }
    return line;
}

QString durationText(milliseconds duration) {
    const auto s = duration_cast<seconds>(duration + milliseconds(500)).count();
    return QStringLiteral("%1:%2:%3")
        .arg(s / 3600)
        .arg(s / 60 % 60, 2, 10, QLatin1Char('0'))
        .arg(s % 60, 2, 10, QLatin1Char('0'));
}

}  // namespace kavrin
