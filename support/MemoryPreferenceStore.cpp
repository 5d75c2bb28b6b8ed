#include "support/MemoryPreferenceStore.hpp"

#include <charconv>

namespace kavrin {

std::optional<std::string> MemoryPreferenceStore::readString(std::string_view key) const {
    std::lock_guard lock(mutex_);
    const auto found = values_.find(key);
    if (found == values_.end()) return std::nullopt;
    return found->second;
}

std::int64_t MemoryPreferenceStore::readInteger(std::string_view key) const {
    const auto text = readString(key);
    if (!text) return 0;
    std::int64_t value = 0;
    const auto end = text->data() + text->size();
    const auto [stop, error] = std::from_chars(text->data(), end, value);
    return error == std::errc() && stop == end ? value : 0;
}

void MemoryPreferenceStore::writeString(std::string_view key, std::string_view value) {
    std::lock_guard lock(mutex_);
    values_.insert_or_assign(std::string(key), std::string(value));
}

void MemoryPreferenceStore::writeInteger(std::string_view key, std::int64_t value) {
    writeString(key, std::to_string(value));
}

}  // namespace kavrin
