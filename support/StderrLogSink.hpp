#pragma once

#include <unistd.h>

#include "support/LogSink.hpp"

namespace kavrin {

// Writes each message as one line, "2024-05-01 14:34:56.789 warning transport: text", with the
// local time to the millisecond, to standard error or another open descriptor (a log file).
// Each line goes out in one write call (short of a partial write), so lines from other
// processes sharing the descriptor do not cut into it either. The descriptor is not closed.
class StderrLogSink : public LogSink {
  public:
    explicit StderrLogSink(int descriptor = STDERR_FILENO) : descriptor_(descriptor) {}

    void write(const LogRecord& record) override;

  private:
    int descriptor_;
};

}  // namespace kavrin
