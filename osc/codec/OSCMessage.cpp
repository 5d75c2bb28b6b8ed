#include "osc/codec/OSCMessage.hpp"

#include <cstring>
#include <functional>
#include <string_view>
#include <utility>

#include "osc/codec/OSCError.hpp"
#include "osc/codec/OSCArgumentView.hpp"
#include "osc/codec/OSCPadding.hpp"
#include "osc/codec/OSCSerialization.hpp"
#include "osc/codec/detail/OSCArgumentCheck.hpp"
#include "osc/codec/detail/OSCArgumentValue.hpp"
#include "osc/codec/detail/OSCRawBytes.hpp"
#include "osc/codec/detail/OSCValueWriting.hpp"
#include "osc/codec/detail/OSCWireFormat.hpp"
#include "support/CompactBytes.hpp"
#include "support/HashCombine.hpp"

namespace kavrin {

namespace {

// The tags the values write: one each, an array its brackets and its elements' tags.
template <class Values>
std::size_t tagCount(const Values& values) {
    std::size_t count = values.size();
    for (const auto& value : values) {
        if (const auto* array = std::get_if<OSCArrayValue>(&value.base())) {
            count += 1 + tagCount(array->elements);
        }
    }
    return count;
}

}  // namespace

OSCMessage::OSCMessage(OSCAddressPattern pattern, OSCValueList values)
    : addressPattern(std::move(pattern)), values(std::move(values)) {}

// Straight into the list: no second list to move from.
OSCMessage::OSCMessage(OSCAddressPattern pattern, std::initializer_list<OSCValue> values)
    : addressPattern(std::move(pattern)), values(values) {}

std::size_t OSCMessage::encodedSize(OSCTextPolicy policy) const {
    return layout(policy).total();
}

std::uint8_t* OSCMessage::encodeInto(std::uint8_t* out, OSCTextPolicy policy) const {
    return write(layout(policy), out, policy);
}

std::vector<std::uint8_t> OSCMessage::rawData(OSCTextPolicy policy) const {
    std::vector<std::uint8_t> bytes;
    encode(bytes, policy);
    return bytes;
}

void OSCMessage::encode(std::vector<std::uint8_t>& into, OSCTextPolicy policy) const {
    const auto sizes = layout(policy);
    into.assign(sizes.total(), 0);  // the writing pass wants zeros
    write(sizes, into.data(), policy);
}

// The measuring pass: the sizes of the three parts. The usual values are counted here, the rest
// by the registry.
OSCMessage::Layout OSCMessage::layout(OSCTextPolicy policy) const {
    std::size_t tags = 0;
    std::size_t arguments = 0;
    OSCValueEncoder measure(OSCSerialization::shared(), policy);
    for (const auto& value : values) {
        if (const auto size = valueWriting::size(value); size != valueWriting::general) {
            ++tags;
            arguments += static_cast<std::size_t>(size);
        } else {
            measure.serialization().measureValue(value, measure);
        }
    }
    return {padding::nullTerminatedSize(addressPattern.rawAddress().size()),
            padding::nullTerminatedSize(1 + tags + measure.tagCount()),
            arguments + measure.argumentByteCount()};
}

// The writing pass into zero-filled bytes, each part at its place.
std::uint8_t* OSCMessage::write(const Layout& sizes, std::uint8_t* out,
                                OSCTextPolicy policy) const {
    const auto address = addressPattern.rawData();
    valueWriting::copyBytes(out, address.data(), address.size());
    std::uint8_t* tag = out + sizes.address;
    *tag++ = ',';
    std::uint8_t* at = out + sizes.address + sizes.tags;
    for (const auto& value : values) {
        if (const auto size = valueWriting::write(value, tag, at); size != valueWriting::general) {
            ++tag;
            at += size;
            continue;
        }
        OSCValueEncoder writer(OSCSerialization::shared(), tag, at, policy);
        writer.serialization().encodeValue(value, writer);
        tag += writer.tagCount();
        at += writer.argumentByteCount();
    }
    return at;
}

std::uint8_t* OSCMessage::writeMeasured(std::uint8_t* out, OSCTextPolicy policy) const {
    return write({padding::nullTerminatedSize(addressPattern.rawAddress().size()),
                  padding::nullTerminatedSize(1 + tagCount(values)), 0},
                 out, policy);
}

OSCMessage OSCMessage::decode(std::span<const std::uint8_t> bytes, OSCTextPolicy policy) {
    OSCMessage message;
    message.decodeFrom(bytes, nullptr, policy);
    return message;
}

OSCMessage OSCMessage::decode(std::shared_ptr<const std::uint8_t[]> buffer, std::size_t size,
                              OSCTextPolicy policy) {
    const std::span<const std::uint8_t> bytes(buffer.get(), size);
    OSCMessage message;
    message.decodeFrom(bytes, std::move(buffer), policy);
    return message;
}

void OSCMessage::decodeFrom(std::span<const std::uint8_t> bytes,
                            std::shared_ptr<const std::uint8_t[]> owner, OSCTextPolicy policy) {
    // The caller's bytes: a short message keeps a copy inside, which costs no allocation; a
    // longer one makes one shared copy for its long values to view.
    if (!owner && bytes.size() > OSCDecodedBytes::inlineCapacity) {
        owner = sharedCopy(bytes);
        bytes = {owner.get(), bytes.size()};
    }
    // One walk: each value is made as soon as its bytes have passed the check, long strings and
    // blobs as views of `owner` (copies when there is none, the bytes being the caller's); a
    // fault further on throws, and the message goes with it.
    const auto header = argumentCheck::header(bytes);
    addressPattern.assign(header.address(bytes.data()), owner, OSCAddressPattern::ASCII{});
    // Room for one value per tag past the leading comma, which is exact unless there are arrays
    // (whose elements allocate anyway) or stray commas; counting first would cost a pass.
    const auto tags = header.tags(bytes.data());
    const auto tagCount = tags.size() - tags.starts_with(',');
    if (tagCount > oscValueListInlineCount) values.reserve(tagCount);
    // Inlined into the walk: a call per value would cost as much as making most values.
    argumentCheck::arguments(
        tags, header.arguments(bytes.data()), bytes.data() + bytes.size(),
        policy, [&](const char* tag, const std::uint8_t* data) __attribute__((always_inline)) {
            OSCArgumentView(tag, data).appendTo(values, &owner);
        });
    // Whatever follows the last argument is ignored.
    if (owner) {
        decodedFrom_.share(std::move(owner), bytes);
    } else {
        decodedFrom_.copy(bytes);
    }
}

std::optional<std::span<const std::uint8_t>> OSCMessage::decodedFrom() const {
    return decodedFrom_.bytes();
}

std::string OSCMessage::description() const {
    return rawBytes::describedList("OSCMessage(\"" + addressPattern.description() + "\")",
                                   "values", values, describe);
}

bool operator==(const OSCMessage& lhs, const OSCMessage& rhs) {
    return lhs.addressPattern == rhs.addressPattern && lhs.values == rhs.values;
}

}  // namespace kavrin

std::size_t std::hash<kavrin::OSCMessage>::operator()(
    const kavrin::OSCMessage& message) const noexcept {
    std::size_t seed = std::hash<kavrin::OSCAddressPattern>{}(message.addressPattern);
    for (const auto& value : message.values) {
        kavrin::hashCombine(seed, std::hash<kavrin::OSCValue>{}(value));
    }
    return seed;
}
