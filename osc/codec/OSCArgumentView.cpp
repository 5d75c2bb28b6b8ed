#include "osc/codec/OSCArgumentView.hpp"

#include <optional>
#include <string>
#include <utility>

#include "osc/codec/OSCError.hpp"
#include "osc/codec/detail/OSCArgumentValue.hpp"

namespace kavrin {

void OSCArgumentView::skipArray(const char*& tag, const std::uint8_t*& data) {
    int depth = 0;
    do {
        const char c = *tag++;
        if (c == oscArrayStart) {
            ++depth;
        } else if (c == oscArrayEnd) {
            --depth;
        } else {
            data += byteCount(c, data);
        }
    } while (depth > 0);
}

void OSCArgumentView::wrongType(OSCValueKind kind) const {
    throw OSCDecodeError(OSCDecodeError::Case::unexpectedType,
                         std::string("OSC type tag ") + *tag_ + " cannot be read as " +
                             std::string(kindName(kind)) + ".");
}

OSCArgumentView::Range OSCArgumentView::elements() const {
    expect<OSCValueKind::array>();
    const char* close = tag_;
    const std::uint8_t* data = data_;
    skipArray(close, data);
    --close;  // back onto the "]"
    return {Iterator(tag_ + 1, data_), Iterator(close, data)};
}

OSCValue OSCArgumentView::value() const {
    std::optional<OSCValue> value;
    makeValue(nullptr, [&](auto kind, auto&&... arguments) -> OSCValue& {
        return value.emplace(kind, std::forward<decltype(arguments)>(arguments)...);
    });
    return std::move(*value);
}

void OSCArgumentView::fillArray(OSCArrayValue& array, const Buffer* buffer) const {
    for (const auto element : elements()) element.appendTo(array.elements, buffer);
}

void OSCArgumentView::appendTo(OSCValueList& values) const {
    appendTo(values, nullptr);
}

}  // namespace kavrin
