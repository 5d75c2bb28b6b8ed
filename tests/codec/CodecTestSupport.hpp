#pragma once

#include <cstdint>
#include <initializer_list>
#include <string_view>
#include <vector>

namespace kavrin::test {

using Bytes = std::vector<std::uint8_t>;

// Concatenates text (as its bytes) and single byte values: bytes("/a", 0, 0, "ab").
struct Part {
    Part(std::string_view text) : data(text.begin(), text.end()) {}
    Part(const char* text) : Part(std::string_view(text)) {}
    Part(int byte) : data{static_cast<std::uint8_t>(byte)} {}
    Bytes data;
};

inline Bytes bytes(std::initializer_list<Part> parts) {
    Bytes result;
    for (const auto& part : parts) result.insert(result.end(), part.data.begin(), part.data.end());
    return result;
}

}  // namespace kavrin::test
