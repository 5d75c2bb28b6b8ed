#include "app/LineStore.hpp"

namespace kavrin {

void LineStore::append(std::string_view line) {
    if (size_ % linesPerBlock == 0) {
        // The full block gives back the slack its string grew with.
        if (!blocks_.empty()) blocks_.back().bytes.shrink_to_fit();
        blocks_.emplace_back().ends.reserve(linesPerBlock);
    }
    Block& block = blocks_.back();
    block.bytes.append(line);
    block.ends.push_back(static_cast<std::uint32_t>(block.bytes.size()));
    if (size_ > 0 && line.size() > (*this)[longest_].size()) longest_ = size_;
    ++size_;
}

std::string_view LineStore::operator[](std::size_t index) const {
    const Block& block = blocks_[index / linesPerBlock];
    const std::size_t i = index % linesPerBlock;
    const std::uint32_t begin = i == 0 ? 0 : block.ends[i - 1];
    return std::string_view(block.bytes).substr(begin, block.ends[i] - begin);
}

}  // namespace kavrin
