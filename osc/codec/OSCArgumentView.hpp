#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "osc/codec/OSCPadding.hpp"
#include "osc/codec/OSCTimeTag.hpp"
#include "osc/codec/OSCTypeTag.hpp"
#include "osc/codec/OSCValue.hpp"
#include "osc/codec/OSCValueList.hpp"
#include "support/BigEndian.hpp"

namespace kavrin {

// One argument of a checked message (OSCMessageView), read in place: its type tag and typed
// reads straight from the datagram, which must outlive the view. Cheap to copy (two pointers).
//
// Each typed read accepts only the tags of its kind (string() also those of OSCStringAltValue)
// and otherwise throws OSCDecodeError(unexpectedType, "OSC type tag x cannot be read as Int32.");
// elements() reads an array's arguments, nested arrays as nested views.
// I (impulse) and N (null) carry nothing beyond their tag.
// Plain values: distinct objects from any thread, a shared one for reading only.
class OSCArgumentView {
  public:
    class Iterator;
    class Range;

    // The tag as on the wire: "[" for an array.
    char tag() const { return *tag_; }
    // A checked message holds only known tags.
    OSCValueKind kind() const { return oscTypeTag::find(*tag_)->kind; }

    std::int32_t int32() const {
        expect<OSCValueKind::int32>();
        return static_cast<std::int32_t>(bigEndian::load32(data_));
    }
    float float32() const {
        expect<OSCValueKind::float32>();
        return std::bit_cast<float>(bigEndian::load32(data_));
    }
    std::string_view string() const {
        constexpr char altTag = oscTypeTag::tagOf(OSCValueKind::stringAlt);
        if (*tag_ != altTag) expect<OSCValueKind::string>();
        return {reinterpret_cast<const char*>(data_), textLength(data_, chunkSize(data_))};
    }
    std::span<const std::uint8_t> blob() const {
        expect<OSCValueKind::blob>();
        return {data_ + 4, bigEndian::load32(data_)};
    }
    std::int64_t int64() const {
        expect<OSCValueKind::int64>();
        return static_cast<std::int64_t>(bigEndian::load64(data_));
    }
    double float64() const {
        expect<OSCValueKind::float64>();
        return std::bit_cast<double>(bigEndian::load64(data_));
    }
    OSCTimeTag timeTag() const {
        expect<OSCValueKind::timeTag>();
        return OSCTimeTag{0, bigEndian::load64(data_)};
    }
    char32_t character() const {
        expect<OSCValueKind::character>();
        return static_cast<char32_t>(bigEndian::load32(data_));
    }
    OSCMIDIValue midi() const {
        expect<OSCValueKind::midi>();
        return {data_[0], data_[1], data_[2], data_[3]};
    }
    bool boolean() const {
        constexpr char falseTag = oscTypeTag::tagOf(OSCValueKind::boolean, 1);
        if (*tag_ != falseTag) expect<OSCValueKind::boolean>();
        return *tag_ != falseTag;
    }
    Range elements() const;

    // The argument as an owned value, as OSCMessage::decode gives it; a long string or blob is
    // copied.
    OSCValue value() const;
    // The same value made in place at the end of `values`, without a move.
    void appendTo(OSCValueList& values) const;

  private:
    friend class OSCMessageView;
    friend class OSCBundleView;
    friend struct OSCMessage;
    using Buffer = std::shared_ptr<const std::uint8_t[]>;
    // A long string or blob shares `buffer` (nullptr: is copied), which holds the argument.
    template <class Values>
    void appendTo(Values& values, const Buffer* buffer) const;
    template <class Make>
    void makeValue(const Buffer* buffer, Make&& make) const;
    void fillArray(OSCArrayValue& array, const Buffer* buffer) const;

    OSCArgumentView(const char* tag, const std::uint8_t* data) : tag_(tag), data_(data) {}
    // Only the kind's first tag passes; the table is read when this is compiled.
    template <OSCValueKind kind>
    void expect() const {
        constexpr char tag = oscTypeTag::tagOf(kind);
        if (*tag_ != tag) [[unlikely]]
            wrongType(kind);
    }
    [[noreturn]] void wrongType(OSCValueKind kind) const;

    // The argument bytes of a value with an atomic or variable tag (arrays are walked tag by
    // tag). The bytes have been checked, so string and blob lengths can be trusted.
    static std::size_t byteCount(char tag, const std::uint8_t* data) {
        const auto width = oscTypeTag::widthOf[static_cast<std::uint8_t>(tag)];
        if (width != oscTypeTag::variableWidth) return width;
        constexpr char blobTag = oscTypeTag::tagOf(OSCValueKind::blob);
        if (tag == blobTag) {
            return 4 + padding::wordAligned(bigEndian::load32(data));
        }
        return chunkSize(data);  // s, S
    }
    // The size of the checked null-terminated chunk at `data`, which starts on a word: its last
    // word is the first whose last byte is zero (an earlier word holds no zero at all).
    static std::size_t chunkSize(const std::uint8_t* data) {
        const auto* word = data;
        while (word[3] != 0) word += 4;
        return static_cast<std::size_t>(word - data) + 4;
    }
    // The length of the text in the checked chunk at `data` of `size` bytes.
    static std::size_t textLength(const std::uint8_t* data, std::size_t size) {
        auto length = size - 4;
        while (data[length] != 0) ++length;
        return length;
    }
    // Moves past the "]" that closes the array opened at `tag`, and past its elements' bytes.
    static void skipArray(const char*& tag, const std::uint8_t*& data);

    const char* tag_;
    const std::uint8_t* data_;
};

// Walks a run of arguments: a message's, skipping its commas, or an array's elements.
class OSCArgumentView::Iterator {
  public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = OSCArgumentView;
    using difference_type = std::ptrdiff_t;
    using pointer = void;
    using reference = OSCArgumentView;

    Iterator() = default;
    OSCArgumentView operator*() const { return {tag_, data_}; }
    Iterator& operator++() {
        if (*tag_ == oscArrayStart) {
            skipArray(tag_, data_);
        } else {
            data_ += byteCount(*tag_, data_);
            ++tag_;
        }
        skipCommas();
        return *this;
    }
    Iterator operator++(int) {
        auto before = *this;
        ++*this;
        return before;
    }
    friend bool operator==(const Iterator& lhs, const Iterator& rhs) {
        return lhs.tag_ == rhs.tag_;
    }

  private:
    friend class OSCArgumentView;
    friend class OSCMessageView;
    Iterator(const char* tag, const std::uint8_t* data) : tag_(tag), data_(data) { skipCommas(); }
    // Only a message's own tag string has commas, and the zero that ends it in the datagram
    // stops the walk; an array's elements never have any (they are refused when the message is
    // checked), and its "]" stops it.
    void skipCommas() {
        while (*tag_ == ',') ++tag_;
    }

    const char* tag_ = nullptr;
    const std::uint8_t* data_ = nullptr;
};

class OSCArgumentView::Range {
  public:
    Iterator begin() const { return begin_; }
    Iterator end() const { return end_; }
    bool empty() const { return begin_ == end_; }

  private:
    friend class OSCArgumentView;
    friend class OSCMessageView;
    Range(Iterator begin, Iterator end) : begin_(begin), end_(end) {}
    Iterator begin_;
    Iterator end_;
};

}  // namespace kavrin
