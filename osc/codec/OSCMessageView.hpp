#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "osc/codec/OSCArgumentView.hpp"
#include "osc/codec/OSCMessage.hpp"
#include "osc/codec/OSCTextPolicy.hpp"

namespace kavrin {

// A message read in place: construction checks the whole datagram and every argument exactly as
// OSCMessage::decode does (the same checks in the same order, the same OSCDecodeError texts, the
// same leniency about commas in the tag string), but copies and allocates nothing; the accessors
// then read straight from the bytes, which must outlive the view and every view taken from it.
//
// The tags are those of the wire format's table (oscTypeTags); any other is refused with
// "No concrete type found to decode OSC type tag: " and the tag.
//
// Arguments are walked front to back (begin()/end(), or arguments()); an array is one argument
// whose elements() are walked the same way. argument(index) walks from the first argument.
// A plain value: distinct objects from any thread, a shared one for reading only.
class OSCMessageView {
  public:
    // Throws OSCDecodeError as OSCMessage::decode would for the same bytes and policy.
    explicit OSCMessageView(std::span<const std::uint8_t> bytes,
                            OSCTextPolicy policy = OSCTextPolicy::ascii);

    std::string_view address() const { return address_; }
    // The tag string as on the wire, commas included.
    std::string_view typeTags() const { return tags_; }
    // The top-level arguments; an array counts as one.
    std::size_t argumentCount() const;

    OSCArgumentView::Iterator begin() const { return {tags_.data(), arguments_}; }
    // Only the tag position takes part in comparisons, so the end needs no argument position.
    OSCArgumentView::Iterator end() const { return {tags_.data() + tags_.size(), nullptr}; }
    OSCArgumentView::Range arguments() const { return {begin(), end()}; }
    // Throws std::out_of_range when index >= argumentCount().
    OSCArgumentView argument(std::size_t index) const;

    std::span<const std::uint8_t> bytes() const { return bytes_; }
    // The owned message, equal to OSCMessage::decode(bytes()) under the view's policy.
    OSCMessage message() const;

    // For bytes already checked as part of a bundle, whose address and tag strings have these
    // lengths. Only OSCBundleView can make the key; the constructor is public so that a view can
    // be made in place.
    class Checked {
        friend class OSCBundleView;
        explicit Checked() = default;
    };
    OSCMessageView(std::span<const std::uint8_t> bytes, std::size_t addressLength,
                   std::size_t tagsLength, Checked);

  private:
    std::span<const std::uint8_t> bytes_;
    std::string_view address_;
    std::string_view tags_;
    const std::uint8_t* arguments_ = nullptr;
    static constexpr std::size_t countUnknown = -1;
    std::size_t count_ = countUnknown;
};

}  // namespace kavrin
