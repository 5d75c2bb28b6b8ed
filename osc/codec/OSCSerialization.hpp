#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <variant>
#include <string_view>
#include <vector>

#include "osc/codec/OSCPadding.hpp"
#include "osc/codec/OSCTextPolicy.hpp"
#include "osc/codec/OSCTypeTag.hpp"
#include "osc/codec/OSCValue.hpp"
#include "osc/codec/OSCValueTagIdentity.hpp"
#include "support/ASCIIScan.hpp"
#include "support/BigEndian.hpp"

namespace kavrin {

class OSCSerialization;

// Where encoders put tags and argument bytes. Encoding runs twice over the same values: first
// measuring (nothing is written, sizes are counted), then writing into a buffer sized from the
// first pass, so the output is allocated once. Both passes must have the same text policy. One
// encoding pass, one thread.
class OSCValueEncoder {
  public:
    // Measuring.
    explicit OSCValueEncoder(const OSCSerialization& serialization,
                             OSCTextPolicy policy = OSCTextPolicy::ascii)
        : serialization_(serialization), policy_(policy) {}
    // Writing: tags and arguments go to separate, zero-filled areas of the output.
    OSCValueEncoder(const OSCSerialization& serialization, std::uint8_t* tags,
                    std::uint8_t* arguments, OSCTextPolicy policy = OSCTextPolicy::ascii)
        : serialization_(serialization),
          policy_(policy),
          tags_(tags),
          arguments_(arguments),
          writing_(true) {}

    const OSCSerialization& serialization() const { return serialization_; }
    // What string arguments may hold as they are; other text is made printable ASCII.
    OSCTextPolicy textPolicy() const { return policy_; }
    std::size_t tagCount() const { return tagCount_; }
    std::size_t argumentByteCount() const { return argumentBytes_; }

    void tag(char tag) {
        if (writing_) tags_[tagCount_] = static_cast<std::uint8_t>(tag);
        ++tagCount_;
    }
    void bytes(const void* data, std::size_t count) {
        if (writing_ && count > 0) std::memcpy(arguments_ + argumentBytes_, data, count);
        argumentBytes_ += count;
    }
    void uint32(std::uint32_t value) {
        if (writing_) bigEndian::store32(arguments_ + argumentBytes_, value);
        argumentBytes_ += 4;
    }
    void uint64(std::uint64_t value) {
        if (writing_) bigEndian::store64(arguments_ + argumentBytes_, value);
        argumentBytes_ += 8;
    }
    // The bytes, one zero, zeros up to a multiple of 4 (four when already aligned).
    void nullTerminated(std::string_view text) {
        bytes(text.data(), text.size());
        // The area is zero-filled: the terminator and padding need only be counted.
        argumentBytes_ += padding::nullTerminatedSize(text.size()) - text.size();
    }
    // Zeros up to a multiple of 4, none when already aligned.
    void padToWord() { argumentBytes_ = padding::wordAligned(argumentBytes_); }
    // Measuring only: one value's tag and argument bytes, counted without being written.
    void count(std::size_t argumentBytes) {
        ++tagCount_;
        argumentBytes_ += argumentBytes;
    }

    int arrayDepth = 0;

  private:
    const OSCSerialization& serialization_;
    const OSCTextPolicy policy_;
    std::uint8_t* tags_ = nullptr;
    std::uint8_t* arguments_ = nullptr;
    std::size_t tagCount_ = 0;
    std::size_t argumentBytes_ = 0;
    bool writing_ = false;
};

namespace detail {
struct OSCSerializationAccess;
}

// The registry of value kinds: which kind owns each tag character, how the kind names itself in
// a tag string and how its argument bytes are laid out. It is built once from the wire format's
// table (oscTypeTags) and is closed: the kinds are OSCValue's alternatives, so a kind registered
// from elsewhere could never be encoded or decoded. Read-only after it is built, so usable from
// any thread.
class OSCSerialization {
  public:
    struct Registration {
        OSCValueKind kind;
        OSCValueTagIdentity identity;
        OSCArgumentFormat format;
    };

    // Deeper arrays are refused when decoding and encoding, so that nesting never exhausts the
    // stack (every level costs a few recursive calls in decoding, printing, comparing and
    // destroying).
    static constexpr int maximumArrayDepth = 128;

    // Inline, so that an encoding pass finds it with one guard check and no call.
    static const OSCSerialization& shared() {
        static const OSCSerialization instance(oscTypeTags);
        return instance;
    }

    // In the order of OSCValue's alternatives.
    const std::vector<Registration>& tagIdentities() const { return registrations_; }
    // The registration owning `tag`, or nullptr.
    const Registration* registration(char tag) const;
    const Registration* registration(OSCValueKind kind) const;

    // Puts the value's tags and argument bytes into the encoder. Throws OSCEncodeError for an
    // array nested too deep.
    void encodeValue(const OSCValue& value, OSCValueEncoder& encoder) const;
    // Counts into a measuring encoder what encodeValue puts, with the same errors: most values
    // without the encoder's calls, by their plan.
    void measureValue(const OSCValue& value, OSCValueEncoder& measure) const;

  private:
    friend struct detail::OSCSerializationAccess;
    // Registers the kinds of `table` in order of first appearance: a kind with one tag is
    // atomic, one with several is variable (Bool: its first tag for true), an array variadic.
    // Throws OSCSerializationError(tagAlreadyRegistered) when two kinds claim one character.
    explicit OSCSerialization(std::span<const OSCTypeTag> table);
    void registerKind(Registration registration);

    std::vector<Registration> registrations_;
    // Registration index per tag character and per kind, -1 when none: lookups are one index.
    std::array<std::int16_t, 256> byTag_;
    std::array<std::int16_t, oscValueKindCount> byKind_;
    // How each kind is written: its tag (Bool: for true, and falseTag for false), its bytes.
    struct EncodePlan {
        bool registered = false;
        OSCArgumentFormat format = OSCArgumentFormat::none;
        char tag = 0;
        char falseTag = 0;
        std::uint8_t width = oscTypeTag::variableWidth;  // the argument bytes of a fixed-size kind
    };
    std::array<EncodePlan, oscValueKindCount> plans_{};

    // The kinds of a fixed width and plain ASCII strings are put inline, in the caller's loop
    // over its values; the rest (other text, blobs, arrays, unknown kinds) are put here.
    void encodeOther(const OSCValue& value, const EncodePlan& plan,
                     OSCValueEncoder& encoder) const;
    void measureOther(const OSCValue& value, OSCValueEncoder& measure) const;
    template <class T>
    static const T& as(const OSCValue& value) {
        return *std::get_if<T>(&value.base());
    }
};

inline void OSCSerialization::encodeValue(const OSCValue& value, OSCValueEncoder& encoder) const {
    const EncodePlan& plan = plans_[value.index()];
    if (!plan.registered || plan.width == oscTypeTag::variableWidth) {
        // Text that goes out as it is, the usual string, is put here too.
        if (const auto* text = std::get_if<OSCString>(&value.base());
            text && plan.registered && !hasZeroOrNonASCII(text->view())) {
            encoder.tag(plan.tag);
            return encoder.nullTerminated(text->view());
        }
        return encodeOther(value, plan, encoder);
    }
    // Bool chooses its tag by its value.
    encoder.tag(plan.falseTag != 0 && !as<bool>(value) ? plan.falseTag : plan.tag);
    switch (plan.format) {
        case OSCArgumentFormat::int32:
            return encoder.uint32(static_cast<std::uint32_t>(as<std::int32_t>(value)));
        case OSCArgumentFormat::float32:
            return encoder.uint32(std::bit_cast<std::uint32_t>(as<float>(value)));
        case OSCArgumentFormat::character:
            return encoder.uint32(static_cast<std::uint32_t>(as<char32_t>(value)));
        case OSCArgumentFormat::int64:
            return encoder.uint64(static_cast<std::uint64_t>(as<std::int64_t>(value)));
        case OSCArgumentFormat::float64:
            return encoder.uint64(std::bit_cast<std::uint64_t>(as<double>(value)));
        case OSCArgumentFormat::timeTag:
            return encoder.uint64(as<OSCTimeTag>(value).rawValue);
        case OSCArgumentFormat::midi: {
            const auto& midi = as<OSCMIDIValue>(value);
            const std::uint8_t bytes[4] = {midi.portID, midi.status, midi.data1, midi.data2};
            return encoder.bytes(bytes, 4);
        }
        default:
            return;  // none: the tag is all
    }
}

inline void OSCSerialization::measureValue(const OSCValue& value, OSCValueEncoder& measure) const {
    const EncodePlan& plan = plans_[value.index()];
    if (plan.registered && plan.width != oscTypeTag::variableWidth) {
        return measure.count(plan.width);
    }
    if (const auto* text = std::get_if<OSCString>(&value.base());
        text && plan.registered && !hasZeroOrNonASCII(text->view())) {
        return measure.count(padding::nullTerminatedSize(text->size()));
    }
    measureOther(value, measure);
}

}  // namespace kavrin
