#pragma once

#include <algorithm>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "osc/codec/OSCError.hpp"
#include "osc/codec/OSCPacket.hpp"
#include "osc/codec/OSCPacketView.hpp"
#include "osc/codec/OSCSerialization.hpp"
#include "osc/codec/detail/OSCWireFormat.hpp"
#include "osc/codec/PassiveDataReader.hpp"

// Shared by the codec tests and the view fuzz target: the reference decoder below, the owning
// decoders and the view decoders must refuse the same bytes with the same error, and read the
// same values from the rest.
namespace kavrin::test {

// The reference: a message read value by value with the registry's lookups and the reader's
// chunk reads, the walk over the tag string made plainly; a bundle element by element. The
// fast checks of the views (on which the owning decoders are built) must agree with it on
// every input.
inline void referenceDecodeValue(std::string_view tags, std::size_t& index,
                                 PassiveDataReader& reader, int& arrayDepth,
                                 std::vector<OSCValue>& values, OSCTextPolicy policy) {
    const char tag = tags[index++];
    const auto* registration = OSCSerialization::shared().registration(tag);
    if (registration == nullptr) throw wireFormat::noConcreteType(tag);
    switch (registration->format) {
        case OSCArgumentFormat::none:
            if (registration->kind == OSCValueKind::boolean) {
                values.emplace_back(tag == 'T');
            } else if (registration->kind == OSCValueKind::impulse) {
                values.emplace_back(OSCImpulseValue{});
            } else {
                values.emplace_back(OSCNullValue{});
            }
            return;
        case OSCArgumentFormat::int32:
            values.emplace_back(reader.readInt32());
            return;
        case OSCArgumentFormat::float32:
            values.emplace_back(reader.readFloat32());
            return;
        case OSCArgumentFormat::character:
            values.emplace_back(
                wireFormat::unicodeScalar(static_cast<std::uint32_t>(reader.readInt32())));
            return;
        case OSCArgumentFormat::midi: {
            const auto bytes = reader.readBytes(4);
            values.emplace_back(OSCMIDIValue{bytes[0], bytes[1], bytes[2], bytes[3]});
            return;
        }
        case OSCArgumentFormat::int64:
            values.emplace_back(reader.readInt64());
            return;
        case OSCArgumentFormat::float64:
            values.emplace_back(reader.readDouble());
            return;
        case OSCArgumentFormat::timeTag:
            values.emplace_back(OSCTimeTag{0, reader.readUInt64()});
            return;
        case OSCArgumentFormat::string:
            if (registration->kind == OSCValueKind::string) {
                values.emplace_back(reader.readString(policy));
            } else {
                values.emplace_back(OSCStringAltValue{reader.readString(policy)});
            }
            return;
        case OSCArgumentFormat::blob:
            values.emplace_back(reader.readBlob());
            return;
        case OSCArgumentFormat::array: {
            wireFormat::enterArray(arrayDepth);
            OSCArrayValue array;
            while (index < tags.size()) {
                if (tags[index] == ']') {
                    ++index;
                    --arrayDepth;
                    values.emplace_back(std::move(array));
                    return;
                }
                referenceDecodeValue(tags, index, reader, arrayDepth, array.elements, policy);
            }
            throw wireFormat::arrayNotTerminated();
        }
    }
}

inline OSCPacket registryDecode(std::span<const std::uint8_t> bytes, OSCTextPolicy policy,
                                int depth = 1) {
    if (startsWithBundleHeader(bytes)) {
        OSCBundle bundle;
        bundle.timeTag = wireFormat::readBundle(bytes, depth, [&](auto element, bool isBundle) {
            bundle.elements.push_back(isBundle ? registryDecode(element, policy, depth + 1)
                                               : registryDecode(element, policy));
        });
        return bundle;
    }
    PassiveDataReader reader(bytes);
    const auto header = wireFormat::readMessageHeader(reader);
    std::vector<OSCValue> values;
    int arrayDepth = 0;
    for (std::size_t index = 0; index < header.tags.size();) {
        if (header.tags[index] == ',' || header.tags[index] == 0) {
            ++index;
            continue;
        }
        referenceDecodeValue(header.tags, index, reader, arrayDepth, values, policy);
    }
    return OSCMessage(OSCAddressPattern(header.address), std::move(values));
}

// Built from the view's typed reads alone, never through the owning decoder.
inline OSCPacket ownedCopy(const OSCPacketView& view) {
    if (view.isMessage()) {
        const auto& message = view.message();
        std::vector<OSCValue> values;
        for (const auto argument : message) values.push_back(argument.value());
        return OSCMessage(OSCAddressPattern(message.address()), std::move(values));
    }
    OSCBundle bundle(view.bundle().timeTag());
    for (const auto element : view.bundle()) bundle.elements.push_back(ownedCopy(element));
    return bundle;
}

// What one decoder made of some bytes: an error (case and text), nothing, or the packet's bytes
// encoded again (bytes rather than packets, since a NaN never equals itself).
template <class Decode>
std::string outcome(Decode decode) {
    try {
        const auto encoded = decode();
        return encoded ? "decoded " + std::string(encoded->begin(), encoded->end()) : "nothing";
    } catch (const OSCDecodeError& error) {
        return "error " + std::to_string(static_cast<int>(error.errorCase())) + " " + error.what();
    }
}

// Empty when the three decoders agree about `bytes` under `policy`, otherwise what each made
// of them. Encoding under the same policy gives back the strings as they were decoded.
inline std::string viewDisagreement(std::span<const std::uint8_t> bytes, OSCTextPolicy policy) {
    using Encoded = std::optional<std::vector<std::uint8_t>>;
    const auto reference = outcome([&]() -> Encoded {
        if (!classifyPacket(bytes)) return std::nullopt;
        return registryDecode(bytes, policy).rawData(policy);
    });
    const auto owning = outcome([&]() -> Encoded {
        const auto packet = OSCPacket::decode(bytes, policy);
        if (!packet) return std::nullopt;
        return packet->rawData(policy);
    });
    const auto viewed = outcome([&]() -> Encoded {
        const auto view = OSCPacketView::decode(bytes, policy);
        if (!view) return std::nullopt;
        return ownedCopy(*view).rawData(policy);
    });
    if (reference == owning && owning == viewed) return {};
    return "reference: " + reference + "\nowning: " + owning + "\nview: " + viewed;
}

// The same under both policies. They differ only where a byte has its high bit set, so bytes
// without one are decoded once.
inline std::string viewDisagreement(std::span<const std::uint8_t> bytes) {
    auto found = viewDisagreement(bytes, OSCTextPolicy::ascii);
    const bool highBit = std::any_of(bytes.begin(), bytes.end(), [](auto b) { return b >= 0x80; });
    if (found.empty() && highBit) {
        found = viewDisagreement(bytes, OSCTextPolicy::utf8);
        if (!found.empty()) found = "under utf8:\n" + found;
    }
    return found;
}

}  // namespace kavrin::test
