#include "app/MonitorSettings.hpp"

#include <QByteArray>
#include <cstdlib>
#include <limits>

namespace kavrin {

MonitorSettings::MonitorSettings()
    : MonitorSettings(std::make_unique<QSettings>(QSettings::NativeFormat, QSettings::UserScope,
                                                  QStringLiteral("Kavrin"),
                                                  QStringLiteral("Kavrin"))) {}

MonitorSettings::MonitorSettings(std::unique_ptr<QSettings> store) : store_(std::move(store)) {}

std::int64_t MonitorSettings::writePort(Preference<std::int64_t>& port, QStringView text) {
    const std::int64_t value = toInt32(text);
    port.set(value);
    return value;
}

std::int32_t MonitorSettings::toInt32(QStringView text) {
    const QByteArray bytes = text.toUtf8();
    static_assert(sizeof(long) > sizeof(std::int32_t));
    // long is wider than 32 bits, so strtol's own saturation lies beyond the 32-bit limits.
    const long value = std::strtol(bytes.constData(), nullptr, 10);
    if (value > std::numeric_limits<std::int32_t>::max()) {
        return std::numeric_limits<std::int32_t>::max();
    }
    if (value < std::numeric_limits<std::int32_t>::min()) {
        return std::numeric_limits<std::int32_t>::min();
    }
    return static_cast<std::int32_t>(value);
}

}  // namespace kavrin
