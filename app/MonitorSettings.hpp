#pragma once

#include <QSettings>
#include <QStringView>
#include <cstdint>
#include <memory>
#include <string>

#include "app/QSettingsPreferenceStore.hpp"
#include "support/Preference.hpp"

namespace kavrin {

// The five settings of the link check, three of how the link is carried and whether the monitor
// advertises itself, kept in the user's preferences so that they survive a restart. Reading falls back to the defaults (a missing
// string, a port that reads as 0, a boolean that is neither true nor false); writing stores
// exactly what the user typed or chose. Use from the GUI thread only.
class MonitorSettings {
  public:
    static constexpr const char* defaultIP = "localhost";
    static constexpr std::int64_t defaultOutPort = 8000;
    static constexpr std::int64_t defaultInPort = 8001;
    static constexpr const char* defaultPing = "/eos/ping";
    static constexpr const char* defaultReply = "/eos/out/ping";
    static constexpr const char* defaultTransport = "udp";

    // The user's own store: organisation and application "Kavrin", native format, that is
    // $XDG_CONFIG_HOME/Kavrin/Kavrin.conf.
    MonitorSettings();
    // Any other store, e.g. a file of a test.
    explicit MonitorSettings(std::unique_ptr<QSettings> store);

  private:
    QSettingsPreferenceStore store_;  // before the preferences, which refer to it

  public:
    // The keys are mixed case on purpose: stored preferences must stay readable.
    Preference<std::string> ip{store_, "ip", defaultIP};
    Preference<std::int64_t> outPort{store_, "OutPort", defaultOutPort};
    Preference<std::int64_t> inPort{store_, "InPort", defaultInPort};
    Preference<std::string> ping{store_, "ping", defaultPing};
    Preference<std::string> reply{store_, "Reply", defaultReply};
    // "udp", "tcp" or "slip"; any other text is kept as stored and carried as udp.
    Preference<std::string> transport{store_, "Transport", defaultTransport};
    // With udp: pings leave from the listening port, for consoles that answer the sender.
    Preference<bool> pingFromInPort{store_, "PingFromInPort", false};
    // Each ping carries one Int32, counting from 1 at start, to time its own reply.
    Preference<bool> numberPings{store_, "NumberPings", false};
    // The monitor's own server is advertised with zeroconf, as _osc._udp.
    Preference<bool> advertise{store_, "Advertise", true};

    // Stores the 32-bit reading of `text` (see toInt32) without any range check; returns it.
    static std::int64_t writePort(Preference<std::int64_t>& port, QStringView text);

    // The C library's reading of a decimal integer: leading white space, an optional sign,
    // digits up to the first other character. No number gives 0; values beyond 32 bits give
    // the nearest 32-bit limit.
    static std::int32_t toInt32(QStringView text);

    QSettings& store() { return store_.settings(); }
};

}  // namespace kavrin
