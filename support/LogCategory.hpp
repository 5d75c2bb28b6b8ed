#pragma once

#include <atomic>
#include <string_view>
#include <utility>

#include <fmt/core.h>

#include "support/LogLevel.hpp"

namespace kavrin {

class Logger;

// The handle through which one logs under a category name, made by Logger::category. A message
// below the category's level costs one comparison: it is not formatted and nothing is
// allocated. Its arguments are still evaluated, so guard costly ones with enabled(). The text
// is formatted with {fmt}, the format string checked at compile time:
//     log.info("listening on port {}", port);
// A plain value, valid while its logger lives; any thread.
class LogCategory {
  public:
    bool enabled(LogLevel level) const {
        return level != LogLevel::off && level >= threshold_->load(std::memory_order_relaxed);
    }

    template <class... Args>
    void log(LogLevel level, fmt::format_string<Args...> format, Args&&... args) const {
        if (enabled(level)) write(level, format, fmt::make_format_args(args...));
    }

    template <class... Args>
    void debug(fmt::format_string<Args...> format, Args&&... args) const {
        log(LogLevel::debug, format, std::forward<Args>(args)...);
    }
    template <class... Args>
    void info(fmt::format_string<Args...> format, Args&&... args) const {
        log(LogLevel::info, format, std::forward<Args>(args)...);
    }
    template <class... Args>
    void notice(fmt::format_string<Args...> format, Args&&... args) const {
        log(LogLevel::notice, format, std::forward<Args>(args)...);
    }
    template <class... Args>
    void warning(fmt::format_string<Args...> format, Args&&... args) const {
        log(LogLevel::warning, format, std::forward<Args>(args)...);
    }
    template <class... Args>
    void error(fmt::format_string<Args...> format, Args&&... args) const {
        log(LogLevel::error, format, std::forward<Args>(args)...);
    }
    template <class... Args>
    void fault(fmt::format_string<Args...> format, Args&&... args) const {
        log(LogLevel::fault, format, std::forward<Args>(args)...);
    }

    std::string_view name() const { return name_; }

  private:
    friend class Logger;

    LogCategory(Logger& logger, std::string_view name, const std::atomic<LogLevel>& threshold)
        : logger_(&logger), name_(name), threshold_(&threshold) {}

    void write(LogLevel level, fmt::string_view format, fmt::format_args args) const;

    Logger* logger_;
    std::string_view name_;
    const std::atomic<LogLevel>* threshold_;
};

}  // namespace kavrin
