#include "osc/codec/OSCMessageView.hpp"

#include <stdexcept>
#include <string>

#include "osc/codec/OSCWireFormat.hpp"

namespace kavrin {

namespace {

// Checks the bytes of one value with an atomic or variable tag as the registry's decoders read
// them. Kept apart from arrays so that it inlines into the loop over the tags.
[[gnu::always_inline]] inline void checkAtomic(char tag, PassiveDataReader& reader) {
    switch (tag) {
        case 'i':
        case 'm':
            reader.readInt32();
            break;
        case 'f':
            reader.readFloat32();
            break;
        case 'h':
            reader.readInt64();
            break;
        case 'd':
            reader.readDouble();
            break;
        case 't':
            reader.readUInt64();
            break;
        case 's':
        case 'S':
            reader.readStringView();
            break;
        case 'b':
            reader.readBlobView();
            break;
        case 'c':
            wireFormat::unicodeScalar(static_cast<std::uint32_t>(reader.readInt32()));
            break;
        case 'T':
        case 'F':
        case 'I':
        case 'N':
            break;
        default:
            throw wireFormat::noConcreteType(tag);
    }
}

// Checks the array whose "[" is tags[index] and moves `index` past its "]".
void checkArray(std::string_view tags, std::size_t& index, PassiveDataReader& reader,
                int& arrayDepth) {
    wireFormat::enterArray(arrayDepth);
    for (++index; index < tags.size();) {
        if (tags[index] == ']') {
            --arrayDepth;
            ++index;
            return;
        }
        if (tags[index] == '[') {
            checkArray(tags, index, reader, arrayDepth);
        } else {
            checkAtomic(tags[index++], reader);
        }
    }
    throw wireFormat::arrayNotTerminated();
}

}  // namespace

OSCMessageView::OSCMessageView(std::span<const std::uint8_t> bytes) : bytes_(bytes) {
    PassiveDataReader reader(bytes);
    const auto header = wireFormat::readMessageHeader(reader);
    address_ = header.address;
    tags_ = header.tags;
    arguments_ = bytes.data() + reader.readOffset();
    // Locals rather than members in the loop, so that they stay in registers.
    const auto tags = tags_;
    std::size_t count = 0;
    int arrayDepth = 0;
    for (std::size_t index = 0; index < tags.size();) {
        // Deliberately lenient, as OSCMessage::decode: commas are skipped wherever they stand.
        if (tags[index] == ',') {
            ++index;
            continue;
        }
        if (tags[index] == '[') {
            checkArray(tags, index, reader, arrayDepth);
        } else {
            checkAtomic(tags[index++], reader);
        }
        ++count;
    }
    count_ = count;
}

OSCMessageView::OSCMessageView(std::span<const std::uint8_t> bytes, Checked) : bytes_(bytes) {
    const auto* address = bytes.data();
    const auto addressSize = OSCArgumentView::chunkSize(address);
    address_ = {reinterpret_cast<const char*>(address),
                OSCArgumentView::textLength(address, addressSize)};
    const auto* tags = address + addressSize;
    const auto tagsSize = OSCArgumentView::chunkSize(tags);
    tags_ = {reinterpret_cast<const char*>(tags), OSCArgumentView::textLength(tags, tagsSize)};
    arguments_ = tags + tagsSize;
    int depth = 0;
    for (const char tag : tags_) {
        if (tag == '[') {
            if (depth++ == 0) ++count_;
        } else if (tag == ']') {
            --depth;
        } else if (tag != ',' && depth == 0) {
            ++count_;
        }
    }
}

OSCArgumentView::Iterator OSCMessageView::begin() const {
    return {tags_.data(), tags_.data() + tags_.size(), arguments_};
}

// Only the tag position takes part in comparisons, so the end needs no argument position.
OSCArgumentView::Iterator OSCMessageView::end() const {
    const char* end = tags_.data() + tags_.size();
    return {end, end, nullptr};
}

OSCArgumentView OSCMessageView::argument(std::size_t index) const {
    if (index >= count_) {
        throw std::out_of_range("OSC argument index " + std::to_string(index) +
                                " is beyond the message's " + std::to_string(count_) +
                                " arguments.");
    }
    auto it = begin();
    while (index-- > 0) ++it;
    return *it;
}

OSCMessage OSCMessageView::message() const {
    return OSCMessage::decode(bytes_);
}

}  // namespace kavrin
