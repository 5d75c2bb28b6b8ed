#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <tuple>
#include <vector>

#include "osc/codec/OSCDecodedBytes.hpp"
#include "osc/codec/OSCTextPolicy.hpp"
#include "osc/codec/OSCValue.hpp"
#include "osc/codec/OSCValueList.hpp"
#include "osc/codec/OSCValueMask.hpp"
#include "osc/pattern/OSCAddressPattern.hpp"

namespace kavrin {

// One OSC message: an address pattern and its argument values, plus the bytes it was decoded
// from (kept for the receiver, but no part of equality or hashing). A plain value: distinct
// objects from any thread, a shared one for reading only.
//
// The usual message allocates nothing: an address of up to 48 bytes, up to 12 values and strings
// and blobs of up to 32 bytes are all kept inside it. Decoded, longer strings and blobs share
// the bytes it was decoded from instead of copying them.
//
// Wire form: the address, the tag string ("," and one tag per value) and the argument bytes,
// each a whole number of 4-byte words. Decoding is lenient about the tag string: "," and zero
// characters are skipped wherever they stand, so a missing leading comma is accepted. Arrays
// nest at most OSCSerialization::maximumArrayDepth (128) levels; deeper ones are refused with
// OSCDecodeError::malformed("Array nesting exceeds the maximum depth of 128 levels.").
struct OSCMessage {
    OSCAddressPattern addressPattern;
    OSCValueList values;

    // Made, not value-initialised: no zero-filling of the room for values first.
    OSCMessage() {}
    OSCMessage(OSCAddressPattern pattern, OSCValueList values = {});
    OSCMessage(OSCAddressPattern pattern, std::initializer_list<OSCValue> values);
    // The address and each value made in place from what they are made from:
    // `OSCMessage("/a", 1, 0.5f, "text")`. The quickest way to build a message in code: no list
    // to copy the values out of, and no address made first and moved in.
    template <class Pattern, class... Values>
        requires(std::constructible_from<OSCAddressPattern, Pattern&&> && sizeof...(Values) > 0 &&
                 (std::constructible_from<OSCValue, Values&&> && ...))
    OSCMessage(Pattern&& pattern, Values&&... values)
        : addressPattern(std::forward<Pattern>(pattern)) {
        if constexpr (sizeof...(Values) > oscValueListInlineCount) {
            this->values.reserve(sizeof...(Values));
        }
        (this->values.emplace_back(std::forward<Values>(values)), ...);
    }

    // Encodes, strings as `policy` has them (OSCTextPolicy); throws OSCEncodeError only for a
    // value kind without an encoder or a too deep array.
    std::vector<std::uint8_t> rawData(OSCTextPolicy policy = OSCTextPolicy::ascii) const;
    // Encodes into `into`, in place of what it held, with the errors of rawData(). Its capacity
    // is kept: a buffer reused for each message stops allocating once it has held the largest.
    void encode(std::vector<std::uint8_t>& into, OSCTextPolicy policy = OSCTextPolicy::ascii) const;
    // Throws OSCDecodeError with one of the fixed texts; never reads outside `bytes`. The
    // string arguments may hold what `policy` allows. The message keeps a copy of `bytes`.
    static OSCMessage decode(std::span<const std::uint8_t> bytes,
                             OSCTextPolicy policy = OSCTextPolicy::ascii);
    // The same for the first `size` bytes of `buffer`, which the message keeps as the bytes it
    // was decoded from instead of a copy: for a receiver that holds the datagram in a shared
    // buffer. Nothing may change those bytes while the message or a value taken from it lives.
    static OSCMessage decode(std::shared_ptr<const std::uint8_t[]> buffer, std::size_t size,
                             OSCTextPolicy policy = OSCTextPolicy::ascii);
    // The bytes this message was decoded from (shared with its bundle, if any); nothing for a
    // message built in code. Those of a message of up to 64 bytes decoded from a span are kept
    // inside it, valid while it lives where it is.
    std::optional<std::span<const std::uint8_t>> decodedFrom() const;

    // `OSCMessage("/a")`, or `OSCMessage("/a") with values:` and one "Kind: value" line per value.
    std::string description() const;

    // The values as the given kinds (see OSCValueMask.hpp); throws OSCValueMaskError.
    template <class... Kinds>
    std::tuple<Kinds...> masked() const {
        return maskValues<Kinds...>(values);
    }

    // For framing code: the size of the encoding, and the encoding written at `out` (which
    // must hold encodedSize() zero bytes, under the same policy); returns the end of what was
    // written.
    std::size_t encodedSize(OSCTextPolicy policy = OSCTextPolicy::ascii) const;
    std::uint8_t* encodeInto(std::uint8_t* out, OSCTextPolicy policy = OSCTextPolicy::ascii) const;

    friend bool operator==(const OSCMessage& lhs, const OSCMessage& rhs);

  private:
    friend struct OSCBundle;
    friend struct OSCPacket;
    struct Layout {
        std::size_t address, tags, arguments;
        std::size_t total() const { return address + tags + arguments; }
    };
    Layout layout(OSCTextPolicy policy) const;
    std::uint8_t* write(const Layout& sizes, std::uint8_t* out, OSCTextPolicy policy) const;
    // The writing pass alone, for a message whose encoding has already been measured (and so
    // is known to succeed): the tag string's size follows from the values without a pass.
    std::uint8_t* writeMeasured(std::uint8_t* out, OSCTextPolicy policy) const;

    // Decodes `bytes`, a part of the buffer `owner` (none: the caller's, copied), into this
    // message, made empty and kept in place: a packet or bundle decodes its messages where they
    // will stay, with no move.
    void decodeFrom(std::span<const std::uint8_t> bytes,
                    std::shared_ptr<const std::uint8_t[]> owner, OSCTextPolicy policy);

    OSCDecodedBytes decodedFrom_;
};

}  // namespace kavrin

template <>
struct std::hash<kavrin::OSCMessage> {
    std::size_t operator()(const kavrin::OSCMessage& message) const noexcept;
};
