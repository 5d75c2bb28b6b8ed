#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kavrin {

// Where Preference values live: keys to strings, integers and booleans, e.g. a settings file.
// Each implementation says which threads may call it.
class PreferenceStore {
  public:
    virtual ~PreferenceStore() = default;

    // Empty when the key is absent (or its value is not text); a stored empty string is "".
    virtual std::optional<std::string> readString(std::string_view key) const = 0;
    // 0 when the key is absent or its value does not read as an integer.
    virtual std::int64_t readInteger(std::string_view key) const = 0;

    // Empty when the key is absent or its value is neither true nor false. By default the
    // text "true" or "false", as a settings file writes them.
    virtual std::optional<bool> readBool(std::string_view key) const;

    virtual void writeString(std::string_view key, std::string_view value) = 0;
    virtual void writeInteger(std::string_view key, std::int64_t value) = 0;
    virtual void writeBool(std::string_view key, bool value);
};

}  // namespace kavrin
