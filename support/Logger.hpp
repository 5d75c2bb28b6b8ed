#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "support/LogCategory.hpp"
#include "support/LogSink.hpp"

namespace kavrin {

// Levelled logging under named categories. Each category writes the messages at or above its
// level: its own if it was given one, else the default level. Messages go to every sink, one
// at a time. Nothing in Kavrin's own libraries logs: this is for tools and programs.
// Every member is callable from any thread; sinks run on the logging thread, under the
// logger's lock.
class Logger {
  public:
    // Warnings and above, from every category, to standard error. Reads no environment.
    Logger();
    ~Logger();
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    // The process's logger, made on first use and configured from the environment variable
    // KAVRIN_LOG as by configure; each pair it cannot use is reported in one line on standard
    // error and skipped. Deliberately never destroyed, so that logging stays safe in static
    // destructors.
    static Logger& shared();

    // The handle for logging under `name`. Its level follows later configuration.
    LogCategory category(std::string_view name);

    // Applies comma-separated "category=level" pairs in order, "*" standing for the default
    // level, e.g. "transport=debug,*=warning". Level names are those of logLevelName in any
    // letter case; spaces around names are ignored. Returns one sentence for each pair it could
    // not use (unknown level, no '='), which it skipped; the others still apply.
    std::vector<std::string> configure(std::string_view pairs);
    void setLevel(std::string_view category, LogLevel level);
    void setDefaultLevel(LogLevel level);

    // Replaces every sink, e.g. with a StderrLogSink and a SyslogLogSink.
    void setSinks(std::vector<std::shared_ptr<LogSink>> sinks);

  private:
    friend class LogCategory;

    void write(const LogRecord& record);
    // The category's own level, else the default; the lock is held for these two.
    LogLevel levelOf(std::string_view category) const;
    void applyLevels();

    std::mutex mutex_;
    std::vector<std::shared_ptr<LogSink>> sinks_;
    LogLevel defaultLevel_ = LogLevel::warning;
    std::map<std::string, LogLevel, std::less<>> levels_;
    // Never erased: each handle points at its threshold and its name, the map's key.
    std::map<std::string, std::unique_ptr<std::atomic<LogLevel>>, std::less<>> thresholds_;
};

}  // namespace kavrin
