#include "support/Logger.hpp"

#include <cstdlib>
#include <iterator>

#include <fmt/format.h>

#include "support/StderrLogSink.hpp"

namespace kavrin {

namespace {

std::string_view trimmed(std::string_view text) {
    const auto first = text.find_first_not_of(' ');
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(' ') + 1 - first);
}

// "debug, info, ..., off".
std::string levelNames() {
    std::string names;
    for (auto level = LogLevel::debug; level <= LogLevel::off;
         level = static_cast<LogLevel>(static_cast<int>(level) + 1)) {
        if (!names.empty()) names += ", ";
        names += logLevelName(level);
    }
    return names;
}

}  // namespace

Logger::Logger() : sinks_{std::make_shared<StderrLogSink>()} {}

Logger::~Logger() = default;

Logger& Logger::shared() {
    static Logger& logger = *[] {
        auto* made = new Logger;
        if (const char* pairs = std::getenv("KAVRIN_LOG")) {
            for (const auto& problem : made->configure(pairs)) {
                fmt::print(stderr, "KAVRIN_LOG: {}\n", problem);
            }
        }
        return made;
    }();
    return logger;
}

LogCategory Logger::category(std::string_view name) {
    std::lock_guard lock(mutex_);
    auto found = thresholds_.find(name);
    if (found == thresholds_.end()) {
        auto threshold = std::make_unique<std::atomic<LogLevel>>(levelOf(name));
        found = thresholds_.emplace(std::string(name), std::move(threshold)).first;
    }
    return LogCategory(*this, found->first, *found->second);
}

std::vector<std::string> Logger::configure(std::string_view pairs) {
    std::vector<std::string> problems;
    std::lock_guard lock(mutex_);
    while (!pairs.empty()) {
        const auto comma = pairs.find(',');
        const auto pair = trimmed(pairs.substr(0, comma));
        pairs = comma == std::string_view::npos ? std::string_view() : pairs.substr(comma + 1);
        if (pair.empty()) continue;

        const auto equals = pair.find('=');
        const auto name = trimmed(pair.substr(0, equals));
        if (equals == std::string_view::npos || name.empty()) {
            problems.push_back(fmt::format("\"{}\" is not category=level; skipped", pair));
            continue;
        }
        const auto levelName = trimmed(pair.substr(equals + 1));
        const auto level = parseLogLevel(levelName);
        if (!level) {
            problems.push_back(
                fmt::format("unknown level \"{}\" for {} (expected one of {}); skipped", levelName,
                            name, levelNames()));
            continue;
        }
        if (name == "*") {
            defaultLevel_ = *level;
        } else {
            levels_.insert_or_assign(std::string(name), *level);
        }
    }
    applyLevels();
    return problems;
}

void Logger::setLevel(std::string_view category, LogLevel level) {
    std::lock_guard lock(mutex_);
    levels_.insert_or_assign(std::string(category), level);
    applyLevels();
}

void Logger::setDefaultLevel(LogLevel level) {
    std::lock_guard lock(mutex_);
    defaultLevel_ = level;
    applyLevels();
}

void Logger::setSinks(std::vector<std::shared_ptr<LogSink>> sinks) {
    std::lock_guard lock(mutex_);
    sinks_ = std::move(sinks);
}

LogLevel Logger::levelOf(std::string_view category) const {
    const auto found = levels_.find(category);
    return found != levels_.end() ? found->second : defaultLevel_;
}

void Logger::applyLevels() {
    for (auto& [name, threshold] : thresholds_) {
        threshold->store(levelOf(name), std::memory_order_relaxed);
    }
}

void Logger::write(const LogRecord& record) {
    std::lock_guard lock(mutex_);
    for (const auto& sink : sinks_) sink->write(record);
}

}  // namespace kavrin
