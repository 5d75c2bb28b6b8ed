#pragma once

#include <string>

#include "support/LogSink.hpp"

namespace kavrin {

// Hands each message to syslog, so that the journal keeps it, as "category: text" under
// `identity` (the program's name) with the process id, facility user. The levels map to the
// priorities of the same names; fault is LOG_CRIT. syslog's connection belongs to the process:
// have one such sink at a time.
class SyslogLogSink : public LogSink {
  public:
    explicit SyslogLogSink(std::string identity);
    ~SyslogLogSink() override;
    SyslogLogSink(const SyslogLogSink&) = delete;
    SyslogLogSink& operator=(const SyslogLogSink&) = delete;

    void write(const LogRecord& record) override;

  private:
    std::string identity_;  // openlog keeps the pointer, not the text
};

}  // namespace kavrin
