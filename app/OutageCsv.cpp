#include "app/OutageCsv.hpp"

#include <QDateTime>
#include <QString>

namespace kavrin {
namespace {

using namespace std::chrono;

QByteArray isoTime(Outage::TimePoint at) {
    return QDateTime::fromMSecsSinceEpoch(duration_cast<milliseconds>(at.time_since_epoch()).count(),
                                          Qt::UTC)
        .toString(Qt::ISODateWithMs)
        .toLatin1();
}

QByteArray millis(std::optional<microseconds> time) {
    return time ? QByteArray::number(static_cast<double>(time->count()) / 1000.0, 'f', 3)
                : QByteArray();
}

}  // namespace

QByteArray outagesCsv(const std::vector<Outage>& outages, Outage::TimePoint now) {
    // No field can hold a comma, a quote or a line end, so none is quoted.
    QByteArray csv = "started,ended,duration_s,ended_by,round_trip_median_ms,round_trip_worst_ms\r\n";
    for (const Outage& outage : outages) {
        const auto duration = duration_cast<milliseconds>(outage.ended.value_or(now) - outage.started);
        csv += isoTime(outage.started) + ',' + (outage.ended ? isoTime(*outage.ended) : QByteArray()) +
               ',' + QByteArray::number(static_cast<double>(duration.count()) / 1000.0, 'f', 3) +
               ',' + Outage::endName(outage.end) + ',' + millis(outage.medianRoundTrip) + ',' + millis(outage.worstRoundTrip) + "\r\n";
    }
    return csv;
}

}  // namespace kavrin
