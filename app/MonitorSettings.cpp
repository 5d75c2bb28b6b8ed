#include "app/MonitorSettings.hpp"

#include <QVariant>
#include <cstdlib>
#include <limits>

namespace kavrin {

MonitorSettings::MonitorSettings()
    : MonitorSettings(std::make_unique<QSettings>(QSettings::NativeFormat, QSettings::UserScope,
                                                  QStringLiteral("Kavrin"),
                                                  QStringLiteral("Kavrin"))) {}

MonitorSettings::MonitorSettings(std::unique_ptr<QSettings> store) : store_(std::move(store)) {}

// QSettings writes what is still pending when it goes away.
MonitorSettings::~MonitorSettings() = default;

QString MonitorSettings::readString(const char* key, const QString& fallback) const {
    const QVariant value = store_->value(QLatin1String(key));
    switch (value.typeId()) {
        case QMetaType::QString:
            return value.toString();
        case QMetaType::UnknownType:  // missing
        case QMetaType::QStringList:  // "a, b" in the file reads as a list
        case QMetaType::QVariantList:
        case QMetaType::QVariantMap:
            return fallback;
        default:
            return value.canConvert<QString>() ? value.toString() : fallback;
    }
}

std::int64_t MonitorSettings::readPort(const char* key, std::int64_t fallback) const {
    bool readable = false;
    const std::int64_t port = store_->value(QLatin1String(key)).toLongLong(&readable);
    return readable && port != 0 ? port : fallback;
}

void MonitorSettings::writeString(const char* key, const QString& value) {
    store_->setValue(QLatin1String(key), value);
}

std::int64_t MonitorSettings::writePort(const char* key, QStringView text) {
    const std::int64_t port = toInt32(text);
    store_->setValue(QLatin1String(key), static_cast<qlonglong>(port));
    return port;
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
