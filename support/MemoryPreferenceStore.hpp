#pragma once

#include <functional>
#include <map>
#include <mutex>

#include "support/PreferenceStore.hpp"

namespace kavrin {

// A PreferenceStore in memory, for tests and programs that keep nothing. Values are kept as
// text, as a settings file keeps them: an integer reads back as a string of its decimal
// digits, and a string reads as an integer when it is exactly one. Callable from any thread.
class MemoryPreferenceStore : public PreferenceStore {
  public:
    std::optional<std::string> readString(std::string_view key) const override;
    std::int64_t readInteger(std::string_view key) const override;
    void writeString(std::string_view key, std::string_view value) override;
    void writeInteger(std::string_view key, std::int64_t value) override;

  private:
    mutable std::mutex mutex_;
    std::map<std::string, std::string, std::less<>> values_;
};

}  // namespace kavrin
