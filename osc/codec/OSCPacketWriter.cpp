#include "osc/codec/OSCPacketWriter.hpp"

#include <algorithm>
#include <bit>
#include <cstring>
#include <string>

#include "osc/codec/OSCBundle.hpp"
#include "osc/codec/OSCError.hpp"
#include "osc/codec/OSCPadding.hpp"
#include "osc/codec/OSCSerialization.hpp"
#include "osc/codec/OSCTypeTag.hpp"
#include "osc/codec/detail/OSCRawBytes.hpp"
#include "osc/codec/detail/OSCWireFormat.hpp"
#include "support/ASCIIScan.hpp"
#include "support/BigEndian.hpp"
#include "support/LossyASCII.hpp"

namespace kavrin {

namespace {

constexpr const char* noRoom = "The buffer is too small for the OSC packet.";
constexpr const char* outOfOrder = "OSC packet written out of order.";

}  // namespace

OSCPacketWriter::OSCPacketWriter(std::span<std::uint8_t> buffer, OSCTextPolicy policy)
    : buffer_(buffer), policy_(policy) {}

void OSCPacketWriter::fail(const char* text) {
    failed_ = true;
    throw OSCEncodeError(OSCEncodeError::Case::general, text);
}

// The tags wait at the far end of the buffer, so that the arguments can follow the address
// before the tag string's size is known.
void OSCPacketWriter::tag(char tag) {
    if (failed_ || !inMessage_) fail(outOfOrder);
    if (size_ + tagCount_ + 1 > buffer_.size()) fail(noRoom);
    buffer_[buffer_.size() - 1 - tagCount_] = static_cast<std::uint8_t>(tag);
    ++tagCount_;
}

std::uint8_t* OSCPacketWriter::argumentSpace(std::size_t count) {
    if (size_ + tagCount_ + count > buffer_.size()) fail(noRoom);
    std::uint8_t* at = buffer_.data() + size_;
    size_ += count;
    return at;
}

// A null-terminated chunk: the text, a zero, zeros up to a word.
void OSCPacketWriter::text(std::string_view text) {
    std::uint8_t* at = argumentSpace(padding::nullTerminatedSize(text.size()));
    std::memcpy(at, text.data(), text.size());
    std::memset(at + text.size(), 0, padding::nullTerminatedSize(text.size()) - text.size());
}

void OSCPacketWriter::beginElement() {
    if (failed_ || inMessage_) fail(outOfOrder);
    if (depth_ == 0) {
        if (size_ > 0) fail(outOfOrder);  // one packet per writer
    } else {
        elementStarts_[depth_] = size_;
        argumentSpace(4);  // the element's size, filled in at its end
    }
    ++depth_;
}

void OSCPacketWriter::endElement() {
    --depth_;
    if (depth_ > 0) {
        const std::size_t start = elementStarts_[depth_];
        bigEndian::store32(buffer_.data() + start, static_cast<std::uint32_t>(size_ - start - 4));
    }
}

OSCPacketWriter& OSCPacketWriter::beginBundle(OSCTimeTag timeTag) {
    // Bundles are the open elements but the message: never more than the decoder takes.
    if (depth_ >= OSCBundle::maximumDepth) {
        failed_ = true;
        throw OSCEncodeError(OSCEncodeError::Case::general, wireFormat::bundleTooDeep());
    }
    beginElement();
    std::uint8_t* at = argumentSpace(16);
    std::memcpy(at, oscBundleHeader, 8);
    bigEndian::store64(at + 8, timeTag.rawValue);
    return *this;
}

OSCPacketWriter& OSCPacketWriter::endBundle() {
    if (failed_ || inMessage_ || depth_ == 0) fail(outOfOrder);
    endElement();
    return *this;
}

OSCPacketWriter& OSCPacketWriter::beginMessage(std::string_view address) {
    beginElement();
    // As OSCAddressPattern keeps it: ASCII as it is, other text made printable ASCII.
    if (isASCII(address)) {
        text(address);
    } else {
        text(lossyASCII(address));
    }
    inMessage_ = true;
    tagsStart_ = size_;
    tagCount_ = 0;
    arrayDepth_ = 0;
    return *this;
}

// The arguments move up to make room for the tag string, which comes in from the far end. Only
// when the buffer is nearly full can they reach the waiting tags; then the tags are turned into
// place first, which is slower but still allocates nothing.
OSCPacketWriter& OSCPacketWriter::endMessage() {
    if (failed_ || !inMessage_ || arrayDepth_ != 0) fail(outOfOrder);
    std::uint8_t* const base = buffer_.data();
    const std::size_t capacity = buffer_.size();
    const std::size_t tags = tagCount_;
    const std::size_t chunk = padding::nullTerminatedSize(1 + tags);
    const std::size_t arguments = size_ - tagsStart_;
    const std::size_t end = tagsStart_ + chunk + arguments;
    if (end > capacity) fail(noRoom);
    std::uint8_t* const start = base + tagsStart_;
    if (end <= capacity - tags) {
        std::memmove(start + chunk, start, arguments);
        for (std::size_t k = 0; k < tags; ++k) start[1 + k] = base[capacity - 1 - k];
    } else {
        std::reverse(base + capacity - tags, base + capacity);
        std::rotate(start, base + capacity - tags, base + capacity);  // tags, then arguments
        std::memmove(start + chunk, start + tags, arguments);
        std::memmove(start + 1, start, tags);
    }
    start[0] = ',';
    std::memset(start + 1 + tags, 0, chunk - 1 - tags);
    size_ = end;
    inMessage_ = false;
    tagCount_ = 0;
    endElement();
    return *this;
}

OSCPacketWriter& OSCPacketWriter::int32(std::int32_t value) {
    tag(oscTypeTag::tagFor<OSCValueKind::int32>);
    bigEndian::store32(argumentSpace(4), static_cast<std::uint32_t>(value));
    return *this;
}

OSCPacketWriter& OSCPacketWriter::float32(float value) {
    tag(oscTypeTag::tagFor<OSCValueKind::float32>);
    bigEndian::store32(argumentSpace(4), std::bit_cast<std::uint32_t>(value));
    return *this;
}

OSCPacketWriter& OSCPacketWriter::string(std::string_view value) {
    return textValue(oscTypeTag::tagFor<OSCValueKind::string>, value);
}

OSCPacketWriter& OSCPacketWriter::stringAlt(std::string_view value) {
    return textValue(oscTypeTag::tagFor<OSCValueKind::stringAlt>, value);
}

// As the string encoder writes it.
OSCPacketWriter& OSCPacketWriter::textValue(char tag, std::string_view value) {
    this->tag(tag);
    if (wireFormat::keepsText(value, policy_)) {
        text(value);
    } else {
        text(lossyASCII(value));
    }
    return *this;
}

OSCPacketWriter& OSCPacketWriter::blob(std::span<const std::uint8_t> bytes) {
    tag(oscTypeTag::tagFor<OSCValueKind::blob>);
    const std::size_t padded = padding::wordAligned(bytes.size());
    std::uint8_t* at = argumentSpace(4 + padded);
    bigEndian::store32(at, static_cast<std::uint32_t>(bytes.size()));
    if (!bytes.empty()) std::memcpy(at + 4, bytes.data(), bytes.size());
    std::memset(at + 4 + bytes.size(), 0, padded - bytes.size());
    return *this;
}

OSCPacketWriter& OSCPacketWriter::boolean(bool value) {
    tag(value ? oscTypeTag::tagFor<OSCValueKind::boolean, 0>
              : oscTypeTag::tagFor<OSCValueKind::boolean, 1>);
    return *this;
}

OSCPacketWriter& OSCPacketWriter::character(char32_t value) {
    tag(oscTypeTag::tagFor<OSCValueKind::character>);
    bigEndian::store32(argumentSpace(4), static_cast<std::uint32_t>(value));
    return *this;
}

OSCPacketWriter& OSCPacketWriter::float64(double value) {
    tag(oscTypeTag::tagFor<OSCValueKind::float64>);
    bigEndian::store64(argumentSpace(8), std::bit_cast<std::uint64_t>(value));
    return *this;
}

OSCPacketWriter& OSCPacketWriter::int64(std::int64_t value) {
    tag(oscTypeTag::tagFor<OSCValueKind::int64>);
    bigEndian::store64(argumentSpace(8), static_cast<std::uint64_t>(value));
    return *this;
}

OSCPacketWriter& OSCPacketWriter::impulse() {
    tag(oscTypeTag::tagFor<OSCValueKind::impulse>);
    return *this;
}

OSCPacketWriter& OSCPacketWriter::midi(OSCMIDIValue value) {
    tag(oscTypeTag::tagFor<OSCValueKind::midi>);
    std::uint8_t* at = argumentSpace(4);
    at[0] = value.portID;
    at[1] = value.status;
    at[2] = value.data1;
    at[3] = value.data2;
    return *this;
}

OSCPacketWriter& OSCPacketWriter::null() {
    tag(oscTypeTag::tagFor<OSCValueKind::null>);
    return *this;
}

OSCPacketWriter& OSCPacketWriter::timeTag(OSCTimeTag value) {
    tag(oscTypeTag::tagFor<OSCValueKind::timeTag>);
    bigEndian::store64(argumentSpace(8), value.rawValue);
    return *this;
}

OSCPacketWriter& OSCPacketWriter::beginArray() {
    if (arrayDepth_ >= OSCSerialization::maximumArrayDepth) {
        failed_ = true;
        throw OSCEncodeError(OSCEncodeError::Case::general, wireFormat::arrayTooDeep());
    }
    tag(oscArrayStart);
    ++arrayDepth_;
    return *this;
}

OSCPacketWriter& OSCPacketWriter::endArray() {
    if (arrayDepth_ == 0) fail(outOfOrder);
    tag(oscArrayEnd);
    --arrayDepth_;
    return *this;
}

}  // namespace kavrin
