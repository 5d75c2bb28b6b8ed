#include "osc/codec/OSCBundleView.hpp"

#include "osc/codec/detail/OSCRawBytes.hpp"
#include "osc/codec/detail/OSCStringChunk.hpp"
#include "osc/codec/detail/OSCWireFormat.hpp"
#include "support/ASCIIScan.hpp"
#include "support/BigEndian.hpp"

namespace kavrin {

OSCBundleView::OSCBundleView(std::span<const std::uint8_t> bytes, OSCTextPolicy policy)
    : OSCBundleView(bytes, 1, policy) {}

OSCBundleView::OSCBundleView(std::span<const std::uint8_t> bytes, int depth, OSCTextPolicy policy)
    : bytes_(bytes) {
    wireFormat::readBundle(bytes, depth, [&](std::span<const std::uint8_t> element, bool isBundle) {
        if (isBundle) {
            OSCBundleView(element, depth + 1, policy);
        } else {
            const OSCMessageView message(element, policy);
            if (count_ < knownHeads) {
                heads_[count_] = {static_cast<std::uint32_t>(message.address().size()),
                                  static_cast<std::uint32_t>(message.typeTags().size())};
            }
        }
        ++count_;
    });
}

OSCBundleView::OSCBundleView(std::span<const std::uint8_t> bytes, Checked) : bytes_(bytes) {
    for (auto it = begin(); it != end(); ++it) ++count_;
}

OSCTimeTag OSCBundleView::timeTag() const {
    return {0, bigEndian::load64(bytes_.data() + 8)};
}

OSCBundleView::Iterator OSCBundleView::begin() const {
    return Iterator(bytes_.data() + 16, heads_.data());
}

OSCBundleView::Iterator OSCBundleView::end() const {
    return Iterator(bytes_.data() + bytes_.size(), nullptr);
}

// As OSCMessageView::message: the bytes are checked, and utf8 takes all that ascii takes.
OSCBundle OSCBundleView::bundle() const {
    return OSCBundle::decode(bytes_, OSCTextPolicy::utf8);
}

// Defined here, beside its only user, so that reading an element inlines it.
OSCMessageView::OSCMessageView(std::span<const std::uint8_t> bytes, std::size_t addressLength,
                               std::size_t tagsLength, Checked)
    : bytes_(bytes) {
    const auto* address = bytes.data();
    address_ = {reinterpret_cast<const char*>(address), addressLength};
    const auto* tags = address + stringChunk::size(static_cast<std::int64_t>(addressLength));
    tags_ = {reinterpret_cast<const char*>(tags), tagsLength};
    arguments_ = tags + stringChunk::size(static_cast<std::int64_t>(tagsLength));
}

OSCPacketView OSCBundleView::Iterator::operator*() const {
    const std::span<const std::uint8_t> element(at_ + 4, bigEndian::load32(at_));
    MessageHead head;
    if (heads_ != nullptr && index_ < knownHeads) head = heads_[index_];
    if (head.addressLength == 0) {
        if (startsWithBundleHeader(element)) {
            return OSCPacketView(OSCPacketView::Key(), std::in_place_type<OSCBundleView>, element,
                                 Checked());
        }
        // Checked already: each string ends at its first zero byte.
        const auto* const end = element.data() + element.size();
        head.addressLength =
            static_cast<std::uint32_t>(scanZeroByte(element.data(), end - element.data()).zero);
        const auto* tags = element.data() + stringChunk::size(head.addressLength);
        head.tagsLength = static_cast<std::uint32_t>(scanZeroByte(tags, end - tags).zero);
    }
    return OSCPacketView(OSCPacketView::Key(), std::in_place_type<OSCMessageView>, element,
                         head.addressLength, head.tagsLength, OSCMessageView::Checked());
}

OSCBundleView::Iterator& OSCBundleView::Iterator::operator++() {
    at_ += 4 + bigEndian::load32(at_);
    ++index_;
    return *this;
}

}  // namespace kavrin
