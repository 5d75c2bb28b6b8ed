#pragma once

#include <QSettings>
#include <memory>

#include "support/PreferenceStore.hpp"

namespace kavrin {

// The user's preferences in a QSettings file. A value that QSettings reads as a list or a map
// is no string; one that does not read as a whole number is integer 0. Use from the GUI thread
// only (QSettings syncs itself from the event loop).
class QSettingsPreferenceStore final : public PreferenceStore {
  public:
    explicit QSettingsPreferenceStore(std::unique_ptr<QSettings> settings);

    std::optional<std::string> readString(std::string_view key) const override;
    std::int64_t readInteger(std::string_view key) const override;
    void writeString(std::string_view key, std::string_view value) override;
    void writeInteger(std::string_view key, std::int64_t value) override;

    QSettings& settings() { return *settings_; }

  private:
    std::unique_ptr<QSettings> settings_;
};

}  // namespace kavrin
