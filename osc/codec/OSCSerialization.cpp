#include "osc/codec/OSCSerialization.hpp"

#include <bit>
#include <string>

#include "osc/codec/OSCError.hpp"
#include "osc/codec/detail/OSCWireFormat.hpp"
#include "support/ASCIIScan.hpp"
#include "support/LossyASCII.hpp"

namespace kavrin {

namespace {

void putText(std::string_view text, OSCValueEncoder& encoder) {
    if (wireFormat::keepsText(text, encoder.textPolicy())) {
        encoder.nullTerminated(text);
    } else {
        encoder.nullTerminated(lossyASCII(text));
    }
}

}  // namespace

OSCSerialization::OSCSerialization(std::span<const OSCTypeTag> table) {
    byTag_.fill(-1);
    byKind_.fill(-1);
    std::array<std::string, oscValueKindCount> tagsOf;
    std::vector<OSCValueKind> order;
    std::array<OSCArgumentFormat, oscValueKindCount> formatOf{};
    for (const auto& entry : table) {
        auto& tags = tagsOf[static_cast<std::size_t>(entry.kind)];
        if (tags.empty()) order.push_back(entry.kind);
        tags += entry.tag;
        formatOf[static_cast<std::size_t>(entry.kind)] = entry.format;
    }
    for (const OSCValueKind kind : order) {
        const auto& tags = tagsOf[static_cast<std::size_t>(kind)];
        const auto format = formatOf[static_cast<std::size_t>(kind)];
        const auto identity = format == OSCArgumentFormat::array
                                  ? OSCValueTagIdentity::variadic(tags[0], 2)
                              : tags.size() == 1 ? OSCValueTagIdentity::atomic(tags[0])
                                                 : OSCValueTagIdentity::variable(tags);
        registerKind({kind, identity, format});
    }
}

void OSCSerialization::registerKind(Registration registration) {
    const auto claimed = registration.identity.claimedTags();
    for (const char tag : claimed) {
        if (byTag_[static_cast<unsigned char>(tag)] >= 0) {
            throw OSCSerializationError(OSCSerializationError::Case::tagAlreadyRegistered,
                                        std::string("OSC type tag is already registered: ") + tag);
        }
    }
    const auto index = static_cast<std::int16_t>(registrations_.size());
    for (const char tag : claimed) byTag_[static_cast<unsigned char>(tag)] = index;
    auto& byKind = byKind_[static_cast<std::size_t>(registration.kind)];
    if (byKind < 0) {
        byKind = index;
        // Decided once here, so that encoding a value looks up one small plan.
        auto& plan = plans_[static_cast<std::size_t>(registration.kind)];
        plan.registered = true;
        plan.format = registration.format;
        plan.tag = claimed[0];
        plan.width = oscTypeTag::width(registration.format);
        if (std::holds_alternative<OSCValueTagIdentity::Variable>(registration.identity.identity)) {
            plan.falseTag = claimed[1];
        }
    }
    registrations_.push_back(std::move(registration));
}

const OSCSerialization::Registration* OSCSerialization::registration(char tag) const {
    const auto index = byTag_[static_cast<unsigned char>(tag)];
    return index < 0 ? nullptr : &registrations_[index];
}

const OSCSerialization::Registration* OSCSerialization::registration(OSCValueKind kind) const {
    const auto index = byKind_[static_cast<std::size_t>(kind)];
    return index < 0 ? nullptr : &registrations_[index];
}

void OSCSerialization::measureOther(const OSCValue& value, OSCValueEncoder& measure) const {
    if (const auto* blob = std::get_if<OSCBlob>(&value.base())) {
        return measure.count(4 + padding::wordAligned(blob->size()));
    }
    encodeOther(value, plans_[value.index()], measure);
}

void OSCSerialization::encodeOther(const OSCValue& value, const EncodePlan& plan,
                                   OSCValueEncoder& encoder) const {
    if (!plan.registered) {
        throw OSCEncodeError(
            OSCEncodeError::Case::general,
            "No encoder is registered for OSC value kind: " + std::string(kindName(kindOf(value))));
    }
    switch (plan.format) {
        case OSCArgumentFormat::string:
            encoder.tag(plan.tag);
            putText(kindOf(value) == OSCValueKind::string ? as<OSCString>(value)
                                                          : as<OSCStringAltValue>(value).string,
                    encoder);
            return;
        case OSCArgumentFormat::blob: {
            encoder.tag(plan.tag);
            const auto& blob = as<OSCBlob>(value);
            encoder.uint32(static_cast<std::uint32_t>(blob.size()));
            encoder.bytes(blob.data(), blob.size());
            encoder.padToWord();
            return;
        }
        case OSCArgumentFormat::array:
            // An array writes its own tags around its elements'.
            if (++encoder.arrayDepth > maximumArrayDepth) {
                throw OSCEncodeError(OSCEncodeError::Case::general, wireFormat::arrayTooDeep());
            }
            encoder.tag(plan.tag);
            for (const auto& element : as<OSCArrayValue>(value).elements) {
                encodeValue(element, encoder);
            }
            encoder.tag(oscArrayEnd);
            --encoder.arrayDepth;
            return;
        default:
            return;  // every fixed width is put inline
    }
}

}  // namespace kavrin
