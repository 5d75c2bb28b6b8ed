#pragma once

#include <memory>
#include <utility>

#include "osc/codec/OSCArgumentView.hpp"

// Internal to the codec: how an argument view becomes an owned value, in a header so that the
// decoder's loop over a message's arguments (OSCMessage) makes each value inline, with no call.
namespace kavrin {

// Makes the argument's value with make(std::in_place_type<Kind>, constructor arguments...),
// which puts it where it belongs and returns it; an array is then filled in place, out of line
// so that this inlines into the decoder's loop.
template <class Make>
[[gnu::always_inline]] inline void OSCArgumentView::makeValue(const Buffer* buffer,
                                                              Make&& make) const {
    // On the tag itself, which the compiler turns into one jump: no lookup of the kind first.
    using oscTypeTag::tagFor;
    switch (*tag_) {
        case tagFor<OSCValueKind::blob>:
            if (buffer) {
                make(std::in_place_type<OSCBlob>, blob(), *buffer);
            } else {
                make(std::in_place_type<OSCBlob>, blob());
            }
            return;
        case tagFor<OSCValueKind::float32>:
            make(std::in_place_type<float>, float32());
            return;
        case tagFor<OSCValueKind::int32>:
            make(std::in_place_type<std::int32_t>, int32());
            return;
        case tagFor<OSCValueKind::string>:
            if (buffer) {
                make(std::in_place_type<OSCString>, string(), *buffer);
            } else {
                make(std::in_place_type<OSCString>, string());
            }
            return;
        case tagFor<OSCValueKind::boolean>:
        case tagFor<OSCValueKind::boolean, 1>:
            make(std::in_place_type<bool>, boolean());
            return;
        case tagFor<OSCValueKind::character>:
            make(std::in_place_type<char32_t>, character());
            return;
        case tagFor<OSCValueKind::float64>:
            make(std::in_place_type<double>, float64());
            return;
        case tagFor<OSCValueKind::int64>:
            make(std::in_place_type<std::int64_t>, int64());
            return;
        case tagFor<OSCValueKind::array>:
            fillArray(std::get<OSCArrayValue>(make(std::in_place_type<OSCArrayValue>)), buffer);
            return;
        case tagFor<OSCValueKind::impulse>:
            make(std::in_place_type<OSCImpulseValue>);
            return;
        case tagFor<OSCValueKind::midi>:
            make(std::in_place_type<OSCMIDIValue>, midi());
            return;
        case tagFor<OSCValueKind::null>:
            make(std::in_place_type<OSCNullValue>);
            return;
        case tagFor<OSCValueKind::stringAlt>:
            make(std::in_place_type<OSCStringAltValue>,
                 OSCStringAltValue{buffer ? OSCString(string(), *buffer) : OSCString(string())});
            return;
        case tagFor<OSCValueKind::timeTag>:
            make(std::in_place_type<OSCTimeTag>, timeTag());
            return;
    }
}

// In place in the list: decoding a message makes one value per argument.
template <class Values>
[[gnu::always_inline]] inline void OSCArgumentView::appendTo(Values& values,
                                                             const Buffer* buffer) const {
    makeValue(buffer, [&](auto kind, auto&&... arguments) -> OSCValue& {
        return values.emplace_back(kind, std::forward<decltype(arguments)>(arguments)...);
    });
}

}  // namespace kavrin
