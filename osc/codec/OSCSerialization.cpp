#include "osc/codec/OSCSerialization.hpp"

#include <string>

#include "osc/codec/OSCBuiltInValueKinds.hpp"
#include "osc/codec/OSCError.hpp"
#include "osc/codec/OSCWireFormat.hpp"

namespace kavrin {

OSCSerialization::OSCSerialization() {
    byTag_.fill(-1);
    byKind_.fill(-1);
}

OSCSerialization OSCSerialization::withBuiltInKinds() {
    OSCSerialization serialization;
    registerBuiltInValueKinds(serialization);
    return serialization;
}

const OSCSerialization& OSCSerialization::shared() {
    static const OSCSerialization instance = withBuiltInKinds();
    return instance;
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
        encodePlans_[static_cast<std::size_t>(registration.kind)] = planFor(registration);
    }
    registrations_.push_back(std::move(registration));
}

// The encoder must be of the sort that the identity asks for.
OSCSerialization::EncodePlan OSCSerialization::planFor(const Registration& registration) {
    using Sort = EncodePlan::Sort;
    EncodePlan plan;
    const auto& identity = registration.identity.identity;
    if (std::holds_alternative<std::monostate>(registration.encoder)) {
        plan.sort = Sort::none;
    } else if (const auto* atomic = std::get_if<OSCValueAtomicEncoder>(&registration.encoder);
               atomic != nullptr && identity.index() == 0) {
        plan.sort = Sort::atomic;
        plan.tag = std::get<OSCValueTagIdentity::Atomic>(identity).tag;
        plan.atomic = *atomic;
    } else if (const auto* variable = std::get_if<OSCValueVariableEncoder>(&registration.encoder);
               variable != nullptr && identity.index() == 1) {
        plan.sort = Sort::variable;
        plan.variable = *variable;
    } else if (const auto* variadic = std::get_if<OSCValueVariadicEncoder>(&registration.encoder);
               variadic != nullptr && identity.index() == 2) {
        plan.sort = Sort::variadic;
        plan.variadic = *variadic;
    } else {
        plan.sort = Sort::mismatched;
    }
    return plan;
}

const OSCSerialization::Registration* OSCSerialization::registration(char tag) const {
    const auto index = byTag_[static_cast<unsigned char>(tag)];
    return index < 0 ? nullptr : &registrations_[index];
}

const OSCSerialization::Registration* OSCSerialization::registration(OSCValueKind kind) const {
    const auto index = byKind_[static_cast<std::size_t>(kind)];
    return index < 0 ? nullptr : &registrations_[index];
}

// Each tag character has at most one owner (registration refuses a second claim), so the
// candidates for a character are at most the one registration in the table.
void OSCSerialization::decodeValue(std::string_view tags, std::size_t& index,
                                   OSCValueDecoder& decoder, std::vector<OSCValue>& values) const {
    const char tag = tags[index];
    const Registration* candidate = registration(tag);
    if (candidate == nullptr || std::holds_alternative<std::monostate>(candidate->decoder)) {
        throw wireFormat::noConcreteType(tag);
    }
    // The decoder must be of the sort that the identity asks for.
    const auto sort = candidate->identity.identity.index() + 1;
    if (candidate->decoder.index() != sort) {
        throw OSCDecodeError::malformed(
            std::string("No decoder is implemented for OSC type tag: ") + tag);
    }
    auto& value = values.emplace_back();
    std::size_t used = 0;
    try {
        if (const auto* atomic = std::get_if<OSCValueAtomicDecoder>(&candidate->decoder)) {
            used = atomic->block(decoder, value) ? 1 : 0;
        } else if (const auto* variable =
                       std::get_if<OSCValueVariableDecoder>(&candidate->decoder)) {
            used = variable->block(tag, decoder, value) ? 1 : 0;
        } else {
            used = std::get<OSCValueVariadicDecoder>(candidate->decoder)
                       .block(tags.substr(index), decoder, value);
        }
    } catch (...) {
        values.pop_back();  // nothing of a failed value is left behind
        throw;
    }
    if (used == 0) {
        values.pop_back();
        throw OSCDecodeError::malformed(std::string("No decoder found to decode OSC type tag: ") +
                                        tag);
    }
    index += used;
}

void OSCSerialization::encodeValue(const OSCValue& value, OSCValueEncoder& encoder) const {
    const auto& plan = encodePlans_[value.index()];
    switch (plan.sort) {
        case EncodePlan::Sort::atomic:
            encoder.tag(plan.tag);
            plan.atomic.block(value, encoder);
            return;
        case EncodePlan::Sort::variable:
            encoder.tag(plan.variable.block(value, encoder));
            return;
        case EncodePlan::Sort::variadic:
            plan.variadic.block(value, encoder);
            return;
        default:
            failEncoding(plan.sort, kindOf(value));
    }
}

void OSCSerialization::failEncoding(EncodePlan::Sort sort, OSCValueKind kind) {
    if (sort == EncodePlan::Sort::none) {
        throw OSCEncodeError(
            OSCEncodeError::Case::general,
            "No encoder is registered for OSC value kind: " + std::string(kindName(kind)));
    }
    throw OSCEncodeError(OSCEncodeError::Case::unexpectedEncoder,
                         "The encoder registered for OSC value kind " +
                             std::string(kindName(kind)) + " does not fit its type tags.");
}

}  // namespace kavrin
