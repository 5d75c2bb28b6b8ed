#include "osc/codec/OSCBundleView.hpp"

#include "osc/codec/detail/BigEndian.hpp"
#include "osc/codec/detail/OSCRawBytes.hpp"
#include "osc/codec/detail/OSCStringChunk.hpp"
#include "osc/codec/detail/OSCWireFormat.hpp"
#include "support/ASCIIScan.hpp"

namespace kavrin {

OSCBundleView::OSCBundleView(std::span<const std::uint8_t> bytes) : OSCBundleView(bytes, 1) {}

OSCBundleView::OSCBundleView(std::span<const std::uint8_t> bytes, int depth) : bytes_(bytes) {
    wireFormat::readBundle(bytes, depth, [&](std::span<const std::uint8_t> element, bool isBundle) {
        if (isBundle) {
            OSCBundleView(element, depth + 1);
        } else {
            OSCMessageView{element};
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
    return Iterator(bytes_.data() + 16);
}

OSCBundleView::Iterator OSCBundleView::end() const {
    return Iterator(bytes_.data() + bytes_.size());
}

OSCBundle OSCBundleView::bundle() const {
    return OSCBundle::decode(bytes_);
}

// Defined here, beside its only user, so that reading an element inlines it.
OSCMessageView::OSCMessageView(std::span<const std::uint8_t> bytes, Checked) : bytes_(bytes) {
    const auto* const end = bytes.data() + bytes.size();
    const auto* address = bytes.data();
    const auto addressLength = scanZeroByte(address, end - address).zero;
    address_ = {reinterpret_cast<const char*>(address), static_cast<std::size_t>(addressLength)};
    const auto* tags = address + stringChunk::size(addressLength);
    const auto tagsLength = scanZeroByte(tags, end - tags).zero;
    tags_ = {reinterpret_cast<const char*>(tags), static_cast<std::size_t>(tagsLength)};
    arguments_ = tags + stringChunk::size(tagsLength);
}

OSCPacketView OSCBundleView::Iterator::operator*() const {
    const std::span<const std::uint8_t> element(at_ + 4, bigEndian::load32(at_));
    if (rawBytes::startsWithBundleHeader(element)) {
        return OSCPacketView(OSCPacketView::Key(), std::in_place_type<OSCBundleView>, element,
                             Checked());
    }
    return OSCPacketView(OSCPacketView::Key(), std::in_place_type<OSCMessageView>, element,
                         OSCMessageView::Checked());
}

OSCBundleView::Iterator& OSCBundleView::Iterator::operator++() {
    at_ += 4 + bigEndian::load32(at_);
    return *this;
}

}  // namespace kavrin
