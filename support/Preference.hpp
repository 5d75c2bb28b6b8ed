#pragma once

#include <concepts>
#include <cstdint>
#include <string>
#include <utility>

#include "support/PreferenceStore.hpp"

namespace kavrin {

// A value kept under one key of a store, with a default for when the store has none. A missing
// string reads as the default, while a stored empty string is kept. An integer that reads as 0
// (absent or unreadable) gives the default: deliberately, a stored 0 does too, as a port of 0
// is never wanted. A boolean that is absent or neither true nor false gives the default. Reads and writes go straight to the store, on the threads the store allows.
// The store must outlive the preference.
template <class T>
concept PreferenceValue =
    std::same_as<T, std::string> || std::same_as<T, std::int64_t> || std::same_as<T, bool>;

template <PreferenceValue T>
class Preference {
  public:
    Preference(PreferenceStore& store, std::string key, T defaultValue)
        : store_(&store), key_(std::move(key)), default_(std::move(defaultValue)) {}

    T value() const {
        if constexpr (std::same_as<T, std::string>) {
            return store_->readString(key_).value_or(default_);
        } else if constexpr (std::same_as<T, bool>) {
            return store_->readBool(key_).value_or(default_);
        } else {
            const std::int64_t stored = store_->readInteger(key_);
            return stored != 0 ? stored : default_;
        }
    }

    void set(const T& value) {
        if constexpr (std::same_as<T, std::string>) {
            store_->writeString(key_, value);
        } else if constexpr (std::same_as<T, bool>) {
            store_->writeBool(key_, value);
        } else {
            store_->writeInteger(key_, value);
        }
    }

    const std::string& key() const { return key_; }
    const T& defaultValue() const { return default_; }

  private:
    PreferenceStore* store_;
    std::string key_;
    T default_;
};

}  // namespace kavrin
