#include "support/PreferenceStore.hpp"

namespace kavrin {

std::optional<bool> PreferenceStore::readBool(std::string_view key) const {
    const auto text = readString(key);
    if (text == "true") return true;
    if (text == "false") return false;
    return std::nullopt;
}

void PreferenceStore::writeBool(std::string_view key, bool value) {
    writeString(key, value ? "true" : "false");
}

}  // namespace kavrin
