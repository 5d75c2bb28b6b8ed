#include "osc/codec/OSCMessageView.hpp"

#include <array>
#include <stdexcept>
#include <string>

#include "osc/codec/OSCTypeTag.hpp"
#include "osc/codec/detail/OSCRawBytes.hpp"
#include "osc/codec/detail/OSCStringChunk.hpp"
#include "osc/codec/detail/OSCWireFormat.hpp"

namespace kavrin {

namespace {

// The fixed widths the fast path may take without a closer look: a "c" needs its scalar checked.
constexpr auto checkedWidths = [] {
    auto widths = oscTypeTag::widthOf;
    for (const auto& entry : oscTypeTags) {
        if (entry.format == OSCArgumentFormat::character) {
            widths[static_cast<std::uint8_t>(entry.tag)] = oscTypeTag::variableWidth;
        }
    }
    return widths;
}();

constexpr auto stringTags = [] {
    std::array<bool, 256> strings{};
    for (const auto& entry : oscTypeTags) {
        strings[static_cast<std::uint8_t>(entry.tag)] = entry.format == OSCArgumentFormat::string;
    }
    return strings;
}();

// Checks the bytes of one value with an atomic or variable tag as the owning decoder reads
// them. Kept apart from arrays so that it inlines into the loop over the tags.
[[gnu::always_inline]] inline void checkAtomic(char tag, PassiveDataReader& reader,
                                               OSCTextPolicy policy) {
    const OSCTypeTag* entry = oscTypeTag::find(tag);
    if (entry == nullptr) throw wireFormat::noConcreteType(tag);
    switch (entry->format) {
        case OSCArgumentFormat::none:
            break;
        case OSCArgumentFormat::int32:
            reader.readInt32();
            break;
        case OSCArgumentFormat::float32:
            reader.readFloat32();
            break;
        case OSCArgumentFormat::character:
            wireFormat::unicodeScalar(static_cast<std::uint32_t>(reader.readInt32()));
            break;
        case OSCArgumentFormat::midi:
            reader.readByteView(4);  // four bytes, not a number: its own shortage text
            break;
        case OSCArgumentFormat::int64:
            reader.readInt64();
            break;
        case OSCArgumentFormat::float64:
            reader.readDouble();
            break;
        case OSCArgumentFormat::timeTag:
            reader.readUInt64();
            break;
        case OSCArgumentFormat::string:
            reader.readStringView(policy);
            break;
        case OSCArgumentFormat::blob:
            reader.readBlobView();
            break;
        case OSCArgumentFormat::array:
            break;  // never here: arrays are walked tag by tag
    }
}

// Checks the array whose "[" is tags[index] and moves `index` past its "]".
void checkArray(std::string_view tags, std::size_t& index, PassiveDataReader& reader,
                int& arrayDepth, OSCTextPolicy policy) {
    wireFormat::enterArray(arrayDepth);
    for (++index; index < tags.size();) {
        if (tags[index] == oscArrayEnd) {
            --arrayDepth;
            ++index;
            return;
        }
        if (tags[index] == oscArrayStart) {
            checkArray(tags, index, reader, arrayDepth, policy);
        } else {
            checkAtomic(tags[index++], reader, policy);
        }
    }
    throw wireFormat::arrayNotTerminated();
}

}  // namespace

OSCMessageView::OSCMessageView(std::span<const std::uint8_t> bytes, OSCTextPolicy policy)
    : bytes_(bytes) {
    const auto* const begin = bytes.data();
    const auto* const end = begin + bytes.size();
    // The header's usual case here; any fault goes through the reader, which knows the texts.
    stringChunk::Chunk address, tags;
    if (bytes.size() % 4 == 0 && startsWithMessageHeader(bytes)) {
        address = stringChunk::ascii(begin, end - begin);
        if (address.length > 0)
            tags = stringChunk::ascii(begin + address.length, end - begin - address.length);
    }
    if (tags.length > 0) {
        address_ = {reinterpret_cast<const char*>(begin),
                    static_cast<std::size_t>(address.textLength)};
        tags_ = {reinterpret_cast<const char*>(begin + address.length),
                 static_cast<std::size_t>(tags.textLength)};
        arguments_ = begin + address.length + tags.length;
    } else {
        PassiveDataReader reader(bytes);
        const auto header = wireFormat::readMessageHeader(reader);
        address_ = header.address;
        tags_ = header.tags;
        arguments_ = begin + reader.readOffset();
    }
    // Locals rather than members in the loop, so that they stay in registers.
    const auto tagString = tags_;
    const char* tag = tagString.data();
    const char* const tagsEnd = tag + tagString.size();
    const auto* at = arguments_;
    std::size_t count = 0;
    int arrayDepth = 0;
    while (tag != tagsEnd) {
        // Fixed widths and well-formed strings are checked here; everything else, and every
        // fault, goes through the reader, which knows the texts.
        const auto width = checkedWidths[static_cast<std::uint8_t>(*tag)];
        if (width != oscTypeTag::variableWidth && end - at >= width) {
            at += width;
            ++tag;
            ++count;
            continue;
        }
        // Deliberately lenient, as OSCMessage::decode: commas are skipped wherever they stand.
        if (*tag == ',') {
            ++tag;
            continue;
        }
        if (stringTags[static_cast<std::uint8_t>(*tag)]) {
            if (const auto length = stringChunk::ascii(at, end - at).length; length > 0) {
                at += length;
                ++tag;
                ++count;
                continue;
            }
        }
        PassiveDataReader reader({at, end});
        auto index = static_cast<std::size_t>(tag - tagString.data());
        if (*tag == oscArrayStart) {
            checkArray(tagString, index, reader, arrayDepth, policy);
        } else {
            checkAtomic(tagString[index++], reader, policy);
        }
        tag = tagString.data() + index;
        at += reader.readOffset();
        ++count;
    }
    count_ = count;
}

std::size_t OSCMessageView::argumentCount() const {
    if (count_ != countUnknown) return count_;
    // A view made inside a bundle counts only when asked: most readers just walk.
    std::size_t count = 0;
    int depth = 0;
    for (const char tag : tags_) {
        if (tag == oscArrayStart) {
            if (depth++ == 0) ++count;
        } else if (tag == oscArrayEnd) {
            --depth;
        } else if (tag != ',' && depth == 0) {
            ++count;
        }
    }
    return count;
}

OSCArgumentView OSCMessageView::argument(std::size_t index) const {
    if (const auto count = argumentCount(); index >= count) {
        throw std::out_of_range("OSC argument index " + std::to_string(index) +
                                " is beyond the message's " + std::to_string(count) +
                                " arguments.");
    }
    auto it = begin();
    while (index-- > 0) ++it;
    return *it;
}

// The bytes passed the view's policy when it was made, and utf8 takes everything ascii takes:
// decoding under utf8 gives the same message whichever policy that was.
OSCMessage OSCMessageView::message() const {
    return OSCMessage::decode(bytes_, OSCTextPolicy::utf8);
}

}  // namespace kavrin
