#pragma once

#include <QSettings>
#include <QString>
#include <QStringView>
#include <cstdint>
#include <memory>

namespace kavrin {

// The five settings of the link check, kept in the user's preferences so that they survive a
// restart. Reading falls back to the defaults; writing stores exactly what the user typed.
// Use from the GUI thread only (QSettings syncs itself from the event loop).
class MonitorSettings {
  public:
    // The keys are mixed case on purpose: stored preferences must stay readable.
    static constexpr const char* ipKey = "ip";
    static constexpr const char* outPortKey = "OutPort";
    static constexpr const char* inPortKey = "InPort";
    static constexpr const char* pingKey = "ping";
    static constexpr const char* replyKey = "Reply";

    static inline const QString defaultIP = QStringLiteral("localhost");
    static constexpr std::int64_t defaultOutPort = 8000;
    static constexpr std::int64_t defaultInPort = 8001;
    static inline const QString defaultPing = QStringLiteral("/eos/ping");
    static inline const QString defaultReply = QStringLiteral("/eos/out/ping");

    // The user's own store: organisation and application "Kavrin", native format, that is
    // $XDG_CONFIG_HOME/Kavrin/Kavrin.conf.
    MonitorSettings();
    // Any other store, e.g. a file of a test.
    explicit MonitorSettings(std::unique_ptr<QSettings> store);
    ~MonitorSettings();

    // A missing value, or one that is not text, gives `fallback`; a stored empty string is kept.
    QString readString(const char* key, const QString& fallback) const;
    // A missing or non-numeric value reads as 0, and 0 gives `fallback`: port 0 never loads.
    std::int64_t readPort(const char* key, std::int64_t fallback) const;

    void writeString(const char* key, const QString& value);
    // Stores the 32-bit reading of `text` (see toInt32) without any range check, returns it.
    std::int64_t writePort(const char* key, QStringView text);

    // The C library's reading of a decimal integer: leading white space, an optional sign,
    // digits up to the first other character. No number gives 0; values beyond 32 bits give
    // the nearest 32-bit limit.
    static std::int32_t toInt32(QStringView text);

    QSettings& store() { return *store_; }

  private:
    std::unique_ptr<QSettings> store_;
};

}  // namespace kavrin
