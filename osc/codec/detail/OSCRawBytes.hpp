#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <span>
#include <string>

namespace kavrin::rawBytes {

// Trims blanks, tabs and line ends at both ends.
inline std::string trimmed(const std::string& text) {
    const auto first = text.find_first_not_of(" \t\r\n");
    if (first == std::string::npos) return {};
    return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

// A description with a list: `head` alone when `items` is empty, else head, " with ", `label`,
// ":" and each item's description on a line of its own, indented by two blanks, the lines
// trimmed at both ends as one text.
template <class Items, class Describe>
std::string describedList(std::string head, const char* label, const Items& items,
                          Describe describe) {
    if (items.empty()) return head;
    std::string lines;
    for (const auto& item : items) {
        if (!lines.empty()) lines += "\n  ";
        lines += describe(item);
    }
    return head + " with " + label + ":\n  " + trimmed(lines);
}

}  // namespace kavrin::rawBytes
