#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "support/CompactBytes.hpp"

namespace kavrin {

// The text of a string argument (tag s, and OSCStringAltValue's S). Immutable, and read as a
// std::string_view. Text of up to 32 bytes is kept inside, so that making or decoding a short
// string allocates nothing; longer text made in code gets a buffer of its own, and longer text
// decoded from a datagram shares the message's copy of it (OSCMessage::decodedFrom) instead.
// A plain value: distinct objects from any thread, a shared one for reading only.
class OSCString {
  public:
    static constexpr std::size_t inlineCapacity = 32;

    OSCString() = default;
    OSCString(std::string_view text) : text_(text) {}
    OSCString(const char* text) : text_(std::string_view(text)) {}
    OSCString(const std::string& text) : text_(std::string_view(text)) {}
    // Text that lies within `buffer` (a received datagram): kept inside when short, else a view
    // that keeps `buffer` alive, with no copy.
    OSCString(std::string_view text, const std::shared_ptr<const std::uint8_t[]>& buffer)
        : text_(std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()),
                buffer) {}

    std::string_view view() const noexcept { return text_.text(); }
    operator std::string_view() const noexcept { return text_.text(); }
    const char* data() const noexcept { return view().data(); }
    std::size_t size() const noexcept { return text_.size(); }
    bool empty() const noexcept { return text_.empty(); }

    friend bool operator==(const OSCString& lhs, const OSCString& rhs) noexcept {
        return lhs.view() == rhs.view();
    }
    // With any text: a std::string, a literal, a std::string_view.
    template <class Text>
        requires std::convertible_to<const Text&, std::string_view>
    friend bool operator==(const OSCString& lhs, const Text& rhs) {
        return lhs.view() == std::string_view(rhs);
    }

  private:
    CompactBytes<inlineCapacity> text_;
};

// The text as it is, for printing and for test failures.
std::ostream& operator<<(std::ostream& stream, const OSCString& text);

}  // namespace kavrin

// As std::hash<std::string> of the same text.
template <>
struct std::hash<kavrin::OSCString> {
    std::size_t operator()(const kavrin::OSCString& text) const noexcept {
        return std::hash<std::string_view>{}(text.view());
    }
};
