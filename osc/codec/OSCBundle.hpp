#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "osc/codec/OSCDecodedBytes.hpp"
#include "osc/codec/OSCMessage.hpp"
#include "osc/codec/OSCTimeTag.hpp"
#include "support/RecyclingAllocator.hpp"

namespace kavrin {

struct OSCPacket;

// A time tag and elements, each a message or a nested bundle, plus the bytes it was decoded
// from (not part of equality or hashing). A plain value: distinct objects from any thread, a
// shared one for reading only.
//
// Wire form: "#bundle\0", the time tag's raw value (8 bytes), then per element an Int32 size and
// that many bytes. Bundles nest at most maximumDepth (128) levels counting the outermost;
// deeper ones are refused with
// OSCDecodeError::malformed("Bundle nesting exceeds the maximum depth of 128 levels."), which
// keeps decoding, printing, comparing and destroying within a small thread stack.
struct OSCBundle {
    static constexpr int maximumDepth = 128;
    // A vector whose storage is recycled per thread: a decoded bundle's list is past glibc's
    // own cache, and receivers make and drop one per datagram.
    using Elements = std::vector<OSCPacket, RecyclingAllocator<OSCPacket>>;

    OSCTimeTag timeTag;
    Elements elements;

    OSCBundle();
    explicit OSCBundle(OSCTimeTag timeTag);
    OSCBundle(OSCTimeTag timeTag, Elements elements);
    OSCBundle(const OSCBundle&);
    OSCBundle(OSCBundle&&) noexcept;
    OSCBundle& operator=(const OSCBundle&);
    OSCBundle& operator=(OSCBundle&&) noexcept;
    ~OSCBundle();

    // Throws OSCEncodeError (a value without an encoder, nesting beyond the limits). Strings as
    // `policy` has them (OSCTextPolicy).
    std::vector<std::uint8_t> rawData(OSCTextPolicy policy = OSCTextPolicy::ascii) const;
    // Into a buffer reused from one call to the next, as OSCMessage::encode.
    void encode(std::vector<std::uint8_t>& into, OSCTextPolicy policy = OSCTextPolicy::ascii) const;
    // Throws OSCDecodeError with one of the fixed texts; never reads outside `bytes`. The
    // string arguments may hold what `policy` allows.
    static OSCBundle decode(std::span<const std::uint8_t> bytes,
                            OSCTextPolicy policy = OSCTextPolicy::ascii);
    // From a shared buffer the bundle keeps instead of a copy, as OSCMessage's.
    static OSCBundle decode(std::shared_ptr<const std::uint8_t[]> buffer, std::size_t size,
                            OSCTextPolicy policy = OSCTextPolicy::ascii);
    std::optional<std::span<const std::uint8_t>> decodedFrom() const;

    // "OSCBundle(timeTag: ...)", followed by " with elements:" and one element per line when
    // there are any.
    std::string description() const;

    // For framing code, as for OSCMessage.
    std::size_t encodedSize(OSCTextPolicy policy = OSCTextPolicy::ascii) const;
    std::uint8_t* encodeInto(std::uint8_t* out, OSCTextPolicy policy = OSCTextPolicy::ascii) const;

    friend bool operator==(const OSCBundle& lhs, const OSCBundle& rhs);

  private:
    friend struct OSCPacket;
    static OSCBundle decode(std::span<const std::uint8_t> bytes,
                            std::shared_ptr<const std::uint8_t[]> owner, int depth,
                            OSCTextPolicy policy);
    std::size_t encodedSize(int depth, OSCTextPolicy policy) const;
    std::uint8_t* encodeInto(std::uint8_t* out, int depth, OSCTextPolicy policy) const;

    OSCDecodedBytes decodedFrom_;
};

}  // namespace kavrin

template <>
struct std::hash<kavrin::OSCBundle> {
    std::size_t operator()(const kavrin::OSCBundle& bundle) const noexcept;
};

// OSCPacket completes OSCBundle's element type.
#include "osc/codec/OSCPacket.hpp"
