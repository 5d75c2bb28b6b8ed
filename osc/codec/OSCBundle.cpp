#include "osc/codec/OSCBundle.hpp"

#include <functional>
#include <string>
#include <utility>

#include "osc/codec/OSCError.hpp"
#include "osc/codec/PassiveDataReader.hpp"
#include "osc/codec/detail/OSCRawBytes.hpp"
#include "osc/codec/detail/OSCWireFormat.hpp"
#include "support/BigEndian.hpp"
#include "support/CompactBytes.hpp"
#include "support/HashCombine.hpp"

namespace kavrin {

namespace {

// How many elements the size words announce, counted up to the first one that does not fit,
// so that the element list is allocated once.
std::size_t elementCount(std::span<const std::uint8_t> bytes) {
    std::size_t count = 0;
    for (std::size_t offset = 16; bytes.size() - offset >= 4; ++count) {
        const std::size_t size = bigEndian::load32(bytes.data() + offset);
        if (size > bytes.size() - offset - 4) break;
        offset += 4 + size;
    }
    return count;
}

}  // namespace

OSCBundle::OSCBundle() = default;
OSCBundle::OSCBundle(OSCTimeTag timeTag) : timeTag(timeTag) {}
OSCBundle::OSCBundle(OSCTimeTag timeTag, Elements elements)
    : timeTag(timeTag), elements(std::move(elements)) {}
OSCBundle::OSCBundle(const OSCBundle&) = default;
OSCBundle::OSCBundle(OSCBundle&&) noexcept = default;
OSCBundle& OSCBundle::operator=(const OSCBundle&) = default;
OSCBundle& OSCBundle::operator=(OSCBundle&&) noexcept = default;
OSCBundle::~OSCBundle() = default;

std::vector<std::uint8_t> OSCBundle::rawData(OSCTextPolicy policy) const {
    std::vector<std::uint8_t> bytes;
    encode(bytes, policy);
    return bytes;
}

void OSCBundle::encode(std::vector<std::uint8_t>& into, OSCTextPolicy policy) const {
    into.assign(encodedSize(1, policy), 0);  // the writing pass wants zeros
    encodeInto(into.data(), 1, policy);
}

std::size_t OSCBundle::encodedSize(OSCTextPolicy policy) const {
    return encodedSize(1, policy);
}

std::uint8_t* OSCBundle::encodeInto(std::uint8_t* out, OSCTextPolicy policy) const {
    return encodeInto(out, 1, policy);
}

std::size_t OSCBundle::encodedSize(int depth, OSCTextPolicy policy) const {
    if (depth > maximumDepth)
        throw OSCEncodeError(OSCEncodeError::Case::general, wireFormat::bundleTooDeep());
    std::size_t size = 16;
    for (const auto& element : elements) {
        size += 4;
        if (const auto* message = std::get_if<OSCMessage>(&element.base())) {
            size += message->encodedSize(policy);
        } else {
            size += std::get<OSCBundle>(element.base()).encodedSize(depth + 1, policy);
        }
    }
    return size;
}

// Each element's size word is filled in once the element is written.
std::uint8_t* OSCBundle::encodeInto(std::uint8_t* out, int depth, OSCTextPolicy policy) const {
    std::memcpy(out, oscBundleHeader, 8);
    bigEndian::store64(out + 8, timeTag.rawValue);
    out += 16;
    for (const auto& element : elements) {
        std::uint8_t* start = out + 4;
        std::uint8_t* end = nullptr;
        if (const auto* message = std::get_if<OSCMessage>(&element.base())) {
            end = message->writeMeasured(start, policy);
        } else {
            end = std::get<OSCBundle>(element.base()).encodeInto(start, depth + 1, policy);
        }
        bigEndian::store32(out, static_cast<std::uint32_t>(end - start));
        out = end;
    }
    return out;
}

OSCBundle OSCBundle::decode(std::span<const std::uint8_t> bytes, OSCTextPolicy policy) {
    // One shared copy: the bundle and all of its elements keep views into it.
    auto copy = sharedCopy(bytes);
    const std::span<const std::uint8_t> kept(copy.get(), bytes.size());
    return decode(kept, std::move(copy), 1, policy);
}

OSCBundle OSCBundle::decode(std::shared_ptr<const std::uint8_t[]> buffer, std::size_t size,
                            OSCTextPolicy policy) {
    const std::span<const std::uint8_t> bytes(buffer.get(), size);
    return decode(bytes, std::move(buffer), 1, policy);
}

OSCBundle OSCBundle::decode(std::span<const std::uint8_t> bytes,
                            std::shared_ptr<const std::uint8_t[]> owner, int depth,
                            OSCTextPolicy policy) {
    OSCBundle bundle;
    if (bytes.size() >= 16) bundle.elements.reserve(elementCount(bytes));
    bundle.timeTag = wireFormat::readBundle(bytes, depth, [&](auto element, bool isBundle) {
        if (isBundle) {
            bundle.elements.emplace_back(decode(element, owner, depth + 1, policy));
        } else {
            auto& message = bundle.elements.emplace_back(std::in_place_type<OSCMessage>);
            std::get<OSCMessage>(message).decodeFrom(element, owner, policy);
        }
    });
    bundle.decodedFrom_.share(std::move(owner), bytes);
    return bundle;
}

std::optional<std::span<const std::uint8_t>> OSCBundle::decodedFrom() const {
    return decodedFrom_.bytes();
}

std::string OSCBundle::description() const {
    return rawBytes::describedList("OSCBundle(timeTag: " + timeTag.description() + ")", "elements",
                                   elements,
                                   [](const OSCPacket& element) { return element.description(); });
}

bool operator==(const OSCBundle& lhs, const OSCBundle& rhs) {
    return lhs.timeTag == rhs.timeTag && lhs.elements == rhs.elements;
}

}  // namespace kavrin

std::size_t std::hash<kavrin::OSCBundle>::operator()(
    const kavrin::OSCBundle& bundle) const noexcept {
    std::size_t seed = std::hash<kavrin::OSCTimeTag>{}(bundle.timeTag);
    for (const auto& element : bundle.elements) {
        kavrin::hashCombine(seed, std::hash<kavrin::OSCPacket>{}(element));
    }
    return seed;
}
