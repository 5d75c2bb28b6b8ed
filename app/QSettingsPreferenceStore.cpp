#include "app/QSettingsPreferenceStore.hpp"

#include <QString>
#include <QVariant>

namespace kavrin {

namespace {

QString keyOf(std::string_view key) {
    return QString::fromUtf8(key.data(), static_cast<qsizetype>(key.size()));
}

}  // namespace

QSettingsPreferenceStore::QSettingsPreferenceStore(std::unique_ptr<QSettings> settings)
    : settings_(std::move(settings)) {}

std::optional<std::string> QSettingsPreferenceStore::readString(std::string_view key) const {
    const QVariant value = settings_->value(keyOf(key));
    switch (value.typeId()) {
        case QMetaType::QString:
            return value.toString().toStdString();
        case QMetaType::UnknownType:  // missing
        case QMetaType::QStringList:  // "a, b" in the file reads as a list
        case QMetaType::QVariantList:
        case QMetaType::QVariantMap:
            return std::nullopt;
        default:
            if (!value.canConvert<QString>()) return std::nullopt;
            return value.toString().toStdString();
    }
}

std::int64_t QSettingsPreferenceStore::readInteger(std::string_view key) const {
    bool readable = false;
    const std::int64_t value = settings_->value(keyOf(key)).toLongLong(&readable);
    return readable ? value : 0;
}

void QSettingsPreferenceStore::writeString(std::string_view key, std::string_view value) {
    settings_->setValue(keyOf(key),
                        QString::fromUtf8(value.data(), static_cast<qsizetype>(value.size())));
}

void QSettingsPreferenceStore::writeInteger(std::string_view key, std::int64_t value) {
    settings_->setValue(keyOf(key), static_cast<qlonglong>(value));
}

}  // namespace kavrin
