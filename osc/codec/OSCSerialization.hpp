#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <variant>
#include <vector>

#include "osc/codec/BigEndian.hpp"
#include "osc/codec/OSCValue.hpp"
#include "osc/codec/OSCValueTagIdentity.hpp"
#include "osc/codec/PassiveDataReader.hpp"

namespace kavrin {

class OSCSerialization;

// What a decoder works with: the reader positioned at its argument bytes, the registry (for
// kinds that hold other values) and the current array nesting. One decoding pass, one thread.
struct OSCValueDecoder {
    PassiveDataReader& reader;
    const OSCSerialization& serialization;
    int arrayDepth = 0;
};

// Where encoders put tags and argument bytes. Encoding runs twice over the same values: first
// measuring (nothing is written, sizes are counted), then writing into a buffer sized from the
// first pass, so the output is allocated once. One encoding pass, one thread.
class OSCValueEncoder {
  public:
    // Measuring.
    explicit OSCValueEncoder(const OSCSerialization& serialization)
        : serialization_(serialization) {}
    // Writing: tags and arguments go to separate, zero-filled areas of the output.
    OSCValueEncoder(const OSCSerialization& serialization, std::uint8_t* tags,
                    std::uint8_t* arguments)
        : serialization_(serialization), tags_(tags), arguments_(arguments), writing_(true) {}

    const OSCSerialization& serialization() const { return serialization_; }
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
        argumentBytes_ += 4 - text.size() % 4;  // the area is zero-filled
    }
    // Zeros up to a multiple of 4, none when already aligned.
    void padToWord() { argumentBytes_ += (4 - argumentBytes_ % 4) % 4; }

    int arrayDepth = 0;

  private:
    const OSCSerialization& serialization_;
    std::uint8_t* tags_ = nullptr;
    std::uint8_t* arguments_ = nullptr;
    std::size_t tagCount_ = 0;
    std::size_t argumentBytes_ = 0;
    bool writing_ = false;
};

// Decoders of the three sorts. A decoder returns false (or a tag count of 0) when it yields no
// value; failures of the bytes themselves throw OSCDecodeError.
struct OSCValueAtomicDecoder {
    bool (*block)(OSCValueDecoder& decoder, OSCValue& value);
};
struct OSCValueVariableDecoder {
    bool (*block)(char tag, OSCValueDecoder& decoder, OSCValue& value);
};
// Receives the tags from its opening tag to the end of the tag string; returns how many it used.
struct OSCValueVariadicDecoder {
    std::size_t (*block)(std::string_view tags, OSCValueDecoder& decoder, OSCValue& value);
};

// Encoders of the three sorts: an atomic one writes only argument bytes (the registry writes its
// tag), a variable one writes argument bytes and returns its tag, a variadic one writes both.
struct OSCValueAtomicEncoder {
    void (*block)(const OSCValue& value, OSCValueEncoder& encoder);
};
struct OSCValueVariableEncoder {
    char (*block)(const OSCValue& value, OSCValueEncoder& encoder);
};
struct OSCValueVariadicEncoder {
    void (*block)(const OSCValue& value, OSCValueEncoder& encoder);
};

// The registry of value kinds: which kind owns each tag character and how each kind is encoded
// and decoded. The shared instance is built once on first use and only read afterwards, so it
// may be used from any thread; other instances follow the usual one-writer rule.
class OSCSerialization {
  public:
    using Decoder = std::variant<std::monostate, OSCValueAtomicDecoder, OSCValueVariableDecoder,
                                 OSCValueVariadicDecoder>;
    using Encoder = std::variant<std::monostate, OSCValueAtomicEncoder, OSCValueVariableEncoder,
                                 OSCValueVariadicEncoder>;

    struct Registration {
        OSCValueKind kind;
        OSCValueTagIdentity identity;
        Encoder encoder;
        Decoder decoder;
    };

    // Deeper arrays are refused when decoding and encoding, so that nesting never exhausts the
    // stack (every level costs a few recursive calls in decoding, printing, comparing and
    // destroying).
    static constexpr int maximumArrayDepth = 128;

    // An empty registry.
    OSCSerialization();
    // A registry holding every built-in kind.
    static OSCSerialization withBuiltInKinds();
    static const OSCSerialization& shared();

    // Throws OSCSerializationError(tagAlreadyRegistered) when a character the identity claims
    // already has an owner; nothing is registered then.
    void registerKind(Registration registration);

    // In registration order.
    const std::vector<Registration>& tagIdentities() const { return registrations_; }
    // The registration owning `tag`, or nullptr.
    const Registration* registration(char tag) const;
    // The first registration of `kind`, or nullptr.
    const Registration* registration(OSCValueKind kind) const;

    // Decodes the value starting at tags[index] from the decoder's reader, appends it to
    // `values` and moves `index` past the tags it used.
    void decodeValue(std::string_view tags, std::size_t& index, OSCValueDecoder& decoder,
                     std::vector<OSCValue>& values) const;
    // Puts the value's tags and argument bytes into the encoder. Throws OSCEncodeError.
    void encodeValue(const OSCValue& value, OSCValueEncoder& encoder) const;

  private:
    // How each kind is encoded, decided when it is registered: encoding a message looks up one
    // plan per value instead of walking the registration's variants.
    struct EncodePlan {
        enum class Sort : std::uint8_t { none, atomic, variable, variadic, mismatched };
        Sort sort = Sort::none;
        char tag = 0;  // atomic
        OSCValueAtomicEncoder atomic{};
        OSCValueVariableEncoder variable{};
        OSCValueVariadicEncoder variadic{};
    };
    static EncodePlan planFor(const Registration& registration);
    [[noreturn]] static void failEncoding(EncodePlan::Sort sort, OSCValueKind kind);

    std::vector<Registration> registrations_;
    // Registration index per tag character and per kind, -1 when none: lookups are one index.
    std::array<std::int16_t, 256> byTag_;
    std::array<std::int16_t, oscValueKindCount> byKind_;
    std::array<EncodePlan, oscValueKindCount> encodePlans_{};
};

}  // namespace kavrin
