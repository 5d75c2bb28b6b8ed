#include "osc/codec/OSCMessageView.hpp"

#include <stdexcept>
#include <string>

#include "osc/codec/OSCTypeTag.hpp"
#include "osc/codec/detail/OSCArgumentCheck.hpp"

namespace kavrin {

OSCMessageView::OSCMessageView(std::span<const std::uint8_t> bytes, OSCTextPolicy policy)
    : bytes_(bytes) {
    const auto header = argumentCheck::header(bytes);
    address_ = header.address(bytes.data());
    tags_ = header.tags(bytes.data());
    arguments_ = header.arguments(bytes.data());
    count_ = argumentCheck::arguments(tags_, arguments_, bytes.data() + bytes.size(), policy,
                                      [](const char*, const std::uint8_t*) {});
}

std::size_t OSCMessageView::argumentCount() const {
    if (count_ != countUnknown) return count_;
    // A view made inside a bundle counts only when asked: most readers just walk.
    return argumentCheck::count(tags_);
}

OSCArgumentView OSCMessageView::argument(std::size_t index) const {
    if (const auto count = argumentCount(); index >= count) {
        throw std::out_of_range("OSC argument index " + std::to_string(index) +
                                " is beyond the message's " + std::to_string(count) +
                                " arguments.");
    }
    auto it = begin();
    while (index-- > 0) ++it;
    return *it;
}

// The bytes passed the view's policy when it was made, and utf8 takes everything ascii takes:
// decoding under utf8 gives the same message whichever policy that was.
OSCMessage OSCMessageView::message() const {
    return OSCMessage::decode(bytes_, OSCTextPolicy::utf8);
}

}  // namespace kavrin
