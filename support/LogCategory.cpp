#include "support/LogCategory.hpp"

#include <chrono>
#include <iterator>

#include <fmt/format.h>

#include "support/Logger.hpp"

namespace kavrin {

void LogCategory::write(LogLevel level, fmt::string_view format, fmt::format_args args) const {
    const auto time = std::chrono::system_clock::now();
    fmt::memory_buffer message;  // on the stack up to 500 bytes
    fmt::vformat_to(std::back_inserter(message), format, args);
    logger_->write({time, level, name_, std::string_view(message.data(), message.size())});
}

}  // namespace kavrin
