#pragma once

#include <chrono>
#include <string_view>

#include "support/LogLevel.hpp"

namespace kavrin {

// One message on its way to the sinks. The views live for the call to LogSink::write only.
struct LogRecord {
    std::chrono::system_clock::time_point time;
    LogLevel level;
    std::string_view category;
    std::string_view message;
};

// Where log messages go. A logger calls write on the logging thread, one call at a time across
// all threads, so a sink needs no lock of its own and its lines never interleave. The call
// holds the logger's lock: a sink must not log, nor configure its logger.
class LogSink {
  public:
    virtual ~LogSink() = default;
    virtual void write(const LogRecord& record) = 0;
};

}  // namespace kavrin
