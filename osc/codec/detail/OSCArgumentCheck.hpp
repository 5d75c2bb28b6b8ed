#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "osc/codec/OSCObjectType.hpp"
#include "osc/codec/OSCTextPolicy.hpp"
#include "osc/codec/OSCTypeTag.hpp"
#include "osc/codec/detail/OSCStringChunk.hpp"
#include "support/BigEndian.hpp"

// Internal to the codec: the one check of a message's bytes, shared by the view (which only
// checks) and the owning decoder (which makes each value as soon as its bytes have passed, so
// that the message is walked once). Both refuse the same bytes with the same texts.
namespace kavrin::argumentCheck {

// A checked header: the lengths of the address and of the tag string, whose chunks begin the
// message. Two words, so that it comes back in registers whichever way it was found: a wider
// result goes through memory and its reload stalls on the stores that made it.
struct Header {
    std::size_t addressLength;
    std::size_t tagsLength;

    std::string_view address(const std::uint8_t* message) const {
        return {reinterpret_cast<const char*>(message), addressLength};
    }
    std::string_view tags(const std::uint8_t* message) const {
        return {reinterpret_cast<const char*>(message + stringChunk::size(addressLength)),
                tagsLength};
    }
    const std::uint8_t* arguments(const std::uint8_t* message) const {
        return message + stringChunk::size(addressLength) + stringChunk::size(tagsLength);
    }
};

// The same for bytes the quick look below did not take, through the reader, which knows the
// texts.
Header headerThroughReader(std::span<const std::uint8_t> bytes);

// Checks the length, the header, the address and the tag string, in this order; throws
// OSCDecodeError. Inline, for the usual header.
inline Header header(std::span<const std::uint8_t> bytes) {
    const auto* const begin = bytes.data();
    const auto* const end = begin + bytes.size();
    stringChunk::Chunk address, tags;
    if (bytes.size() % 4 == 0 && startsWithMessageHeader(bytes)) {
        address = stringChunk::ascii(begin, end - begin);
        if (address.length > 0)
            tags = stringChunk::ascii(begin + address.length, end - begin - address.length);
    }
    if (tags.length <= 0) return headerThroughReader(bytes);
    return {static_cast<std::size_t>(address.textLength),
            static_cast<std::size_t>(tags.textLength)};
}

// The top-level arguments that checked `tags` announce; an array counts as one.
std::size_t count(std::string_view tags);

// The fixed widths the fast path may take without a closer look: a "c" needs its scalar checked.
inline constexpr auto checkedWidths = [] {
    auto widths = oscTypeTag::widthOf;
    for (const auto& entry : oscTypeTags) {
        if (entry.format == OSCArgumentFormat::character) {
            widths[static_cast<std::uint8_t>(entry.tag)] = oscTypeTag::variableWidth;
        }
    }
    return widths;
}();

inline constexpr auto stringTags = [] {
    std::array<bool, 256> strings{};
    for (const auto& entry : oscTypeTags) {
        strings[static_cast<std::uint8_t>(entry.tag)] = entry.format == OSCArgumentFormat::string;
    }
    return strings;
}();

// The bytes of the well-formed blob the `available` bytes at `data` begin with (its length, its
// bytes, zeros up to a word), or 0 for the reader to find the fault.
inline std::int64_t blobSize(const std::uint8_t* data, std::int64_t available) {
    if (available < 4) return 0;
    const std::int64_t length = static_cast<std::int32_t>(bigEndian::load32(data));
    if (length < 0) return 0;
    const auto size =
        4 + static_cast<std::int64_t>(padding::wordAligned(static_cast<std::size_t>(length)));
    if (size > available) return 0;
    for (std::int64_t i = 4 + length; i < size; ++i) {
        if (data[i] != 0) return 0;
    }
    return size;
}

// Checks the argument (an array with its elements) that begins at tags[index] and bytes[0],
// through the reader, which knows the texts; moves `index` past its tags and returns its bytes.
std::size_t other(std::string_view tags, std::size_t& index, std::span<const std::uint8_t> bytes,
                  int& arrayDepth, OSCTextPolicy policy);

// Checks the arguments of `tags` at [at, end) in order and calls argument(tag, data) for each
// top-level one once its bytes have passed (an array once all of it has); returns how many
// there are. Commas are skipped wherever they stand. Whatever follows the last is ignored.
template <class Argument>
std::size_t arguments(std::string_view tags, const std::uint8_t* at, const std::uint8_t* end,
                      OSCTextPolicy policy, Argument&& argument) {
    // Locals rather than members in the loop, so that they stay in registers.
    const char* tag = tags.data();
    const char* const tagsEnd = tag + tags.size();
    // The usual leading comma, here rather than as a turn of the loop.
    if (tag != tagsEnd && *tag == ',') ++tag;
    std::size_t count = 0;
    int arrayDepth = 0;
    while (tag != tagsEnd) {
        // Fixed widths and well-formed strings and blobs are checked here and share the one call
        // at the end, so that an inlined `argument` is inlined once for them; everything else,
        // and every fault, goes through the reader.
        const auto width = checkedWidths[static_cast<std::uint8_t>(*tag)];
        std::int64_t size = width;
        if (width == oscTypeTag::variableWidth || end - at < width) {
            // Deliberately lenient: commas are skipped wherever they stand.
            if (*tag == ',') {
                ++tag;
                continue;
            }
            size = 0;
            if (stringTags[static_cast<std::uint8_t>(*tag)]) {
                size = stringChunk::ascii(at, end - at).length;
            } else if (*tag == oscTypeTag::tagFor<OSCValueKind::blob>) {
                size = blobSize(at, end - at);
            }
            if (size <= 0) {
                auto index = static_cast<std::size_t>(tag - tags.data());
                const auto checked = other(tags, index, {at, end}, arrayDepth, policy);
                argument(tag, at);
                tag = tags.data() + index;
                at += checked;
                ++count;
                continue;
            }
        }
        argument(tag, at);
        at += size;
        ++tag;
        ++count;
    }
    return count;
}

}  // namespace kavrin::argumentCheck
