#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <span>

#include "osc/codec/OSCBundle.hpp"
#include "osc/codec/OSCTextPolicy.hpp"
#include "osc/codec/OSCTimeTag.hpp"

namespace kavrin {

class OSCPacketView;

// A bundle read in place: construction checks the bundle and everything nested in it exactly as
// OSCBundle::decode does (same order, same OSCDecodeError texts, same nesting limit) without
// copying or allocating; iterating then gives each element as an OSCPacketView over its bytes,
// which must outlive the views; like a container's, the iterators must not outlive the view. A
// plain value: distinct objects from any thread, a shared one for reading only.
class OSCBundleView {
  public:
    class Iterator;

    // Throws OSCDecodeError as OSCBundle::decode would for the same bytes and policy.
    explicit OSCBundleView(std::span<const std::uint8_t> bytes,
                           OSCTextPolicy policy = OSCTextPolicy::ascii);

    OSCTimeTag timeTag() const;
    std::size_t elementCount() const { return count_; }
    Iterator begin() const;
    Iterator end() const;

    std::span<const std::uint8_t> bytes() const { return bytes_; }
    // The owned bundle, equal to OSCBundle::decode(bytes()) under the view's policy.
    OSCBundle bundle() const;

    // For bytes already checked as part of an enclosing bundle; the key is this class's own,
    // the constructor public so that a view can be made in place.
    class Checked {
        friend class OSCBundleView;
        explicit Checked() = default;
    };
    OSCBundleView(std::span<const std::uint8_t> bytes, Checked);

  private:
    friend class OSCPacketView;
    OSCBundleView(std::span<const std::uint8_t> bytes, int depth, OSCTextPolicy policy);

    // What the check found of the first messages, so that reading a small bundle does not look
    // for their strings again. Five fill the room the variant of OSCPacketView has beside a
    // message view; an address length of 0 means not known.
    struct MessageHead {
        std::uint32_t addressLength = 0;
        std::uint32_t tagsLength = 0;
    };
    static constexpr std::size_t knownHeads = 5;

    std::span<const std::uint8_t> bytes_;
    std::size_t count_ = 0;
    std::array<MessageHead, knownHeads> heads_{};
};

// Walks the elements of a checked bundle in order.
class OSCBundleView::Iterator {
  public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = OSCPacketView;
    using difference_type = std::ptrdiff_t;
    using pointer = void;
    using reference = OSCPacketView;

    Iterator() = default;
    OSCPacketView operator*() const;
    Iterator& operator++();
    Iterator operator++(int) {
        auto before = *this;
        ++*this;
        return before;
    }
    friend bool operator==(const Iterator& lhs, const Iterator& rhs) { return lhs.at_ == rhs.at_; }

  private:
    friend class OSCBundleView;
    Iterator(const std::uint8_t* at, const MessageHead* heads) : at_(at), heads_(heads) {}
    const std::uint8_t* at_ = nullptr;    // the element's size word
    const MessageHead* heads_ = nullptr;  // the view's
    std::size_t index_ = 0;
};

}  // namespace kavrin

// OSCPacketView completes the iterator's element type.
#include "osc/codec/OSCPacketView.hpp"
