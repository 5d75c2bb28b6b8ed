#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

#include "support/CompactBytes.hpp"

namespace kavrin {

// The bytes of a blob argument (tag b). Immutable, and read as a contiguous range of bytes.
// Up to 32 bytes are kept inside, so that making or decoding a small blob allocates nothing;
// larger blobs made in code get a buffer of their own, and larger ones decoded from a datagram
// share the message's copy of it (OSCMessage::decodedFrom) instead.
// A plain value: distinct objects from any thread, a shared one for reading only.
class OSCBlob {
  public:
    using value_type = std::uint8_t;
    using size_type = std::size_t;
    using const_iterator = const std::uint8_t*;
    using iterator = const_iterator;

    static constexpr std::size_t inlineCapacity = 32;

    OSCBlob() = default;
    OSCBlob(std::initializer_list<std::uint8_t> bytes) : bytes_(std::span(bytes.begin(), bytes.size())) {}
    OSCBlob(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}
    OSCBlob(const std::vector<std::uint8_t>& bytes) : bytes_(std::span(bytes)) {}
    template <std::contiguous_iterator Iterator>
    OSCBlob(Iterator first, Iterator last)
        : bytes_(std::span<const std::uint8_t>(std::to_address(first),
                                               static_cast<std::size_t>(last - first))) {}
    // Bytes that lie within `buffer` (a received datagram): kept inside when few, else a view
    // that keeps `buffer` alive, with no copy.
    OSCBlob(std::span<const std::uint8_t> bytes, const std::shared_ptr<const std::uint8_t[]>& buffer)
        : bytes_(bytes, buffer) {}

    const std::uint8_t* data() const noexcept { return bytes_.data(); }
    std::size_t size() const noexcept { return bytes_.size(); }
    bool empty() const noexcept { return bytes_.empty(); }
    const_iterator begin() const noexcept { return data(); }
    const_iterator end() const noexcept { return data() + size(); }
    std::uint8_t operator[](std::size_t index) const noexcept { return data()[index]; }
    std::span<const std::uint8_t> bytes() const noexcept { return bytes_.bytes(); }
    operator std::span<const std::uint8_t>() const noexcept { return bytes_.bytes(); }

    friend bool operator==(const OSCBlob& lhs, const OSCBlob& rhs) noexcept {
        return lhs.bytes_ == rhs.bytes_;
    }

  private:
    CompactBytes<inlineCapacity> bytes_;
};

}  // namespace kavrin

// As std::hash of the bytes read as a std::string_view.
template <>
struct std::hash<kavrin::OSCBlob> {
    std::size_t operator()(const kavrin::OSCBlob& blob) const noexcept {
        return std::hash<std::string_view>{}(
            std::string_view(reinterpret_cast<const char*>(blob.data()), blob.size()));
    }
};
