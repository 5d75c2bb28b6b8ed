#pragma once

#include <QByteArray>
#include <vector>

#include "app/LinkHistory.hpp"

namespace kavrin {

// The outages as CSV (RFC 4180, CRLF line ends), one row each in the order given, under the
// header row: started,ended,duration_s,ended_by,round_trip_median_ms,round_trip_worst_ms.
// Times are ISO 8601 in UTC to the millisecond. An ongoing outage has no end, "ongoing" as
// how it ended, and its duration until `now`. A missing round trip is an empty field.
QByteArray outagesCsv(const std::vector<Outage>& outages, Outage::TimePoint now);

}  // namespace kavrin
