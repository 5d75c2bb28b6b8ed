#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kavrin {

// Lines of text, appended and never removed, kept compactly: each block of lines holds their
// bytes in one string and their ends in one array, so a line costs its bytes plus four, any
// line is found in constant time, and an append never copies what is already stored.
// Not thread-safe.
class LineStore {
  public:
    void append(std::string_view line);
    std::size_t size() const { return size_; }
    // Valid until the next append.
    std::string_view operator[](std::size_t index) const;
    // The index of the longest line in bytes (the first of equals); 0 when empty.
    std::size_t longest() const { return longest_; }

  private:
    static constexpr std::size_t linesPerBlock = 4096;
    struct Block {
        std::string bytes;
        std::vector<std::uint32_t> ends;  // a block holds at most 4096 × 64 KiB, under 4 GiB
    };
    std::vector<Block> blocks_;
    std::size_t size_ = 0;
    std::size_t longest_ = 0;
};

}  // namespace kavrin
