#include "support/SyslogLogSink.hpp"

#include <syslog.h>

namespace kavrin {

namespace {

int priority(LogLevel level) {
    switch (level) {
        case LogLevel::debug:
            return LOG_DEBUG;
        case LogLevel::info:
            return LOG_INFO;
        case LogLevel::notice:
            return LOG_NOTICE;
        case LogLevel::warning:
            return LOG_WARNING;
        case LogLevel::error:
            return LOG_ERR;
        case LogLevel::fault:
        case LogLevel::off:
            break;
    }
    return LOG_CRIT;
}

}  // namespace

SyslogLogSink::SyslogLogSink(std::string identity) : identity_(std::move(identity)) {
    ::openlog(identity_.c_str(), LOG_PID, LOG_USER);
}

SyslogLogSink::~SyslogLogSink() {
    ::closelog();
}

void SyslogLogSink::write(const LogRecord& record) {
    ::syslog(priority(record.level), "%.*s: %.*s", static_cast<int>(record.category.size()),
             record.category.data(), static_cast<int>(record.message.size()),
             record.message.data());
}

}  // namespace kavrin
