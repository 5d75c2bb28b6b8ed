#include "osc/codec/OSCValueMask.hpp"

namespace kavrin::valueMask {

void throwCountMismatch(std::size_t minimum, std::size_t maximum, std::size_t found) {
    const std::string expected = minimum == maximum
                                     ? std::to_string(minimum)
                                     : std::to_string(minimum) + " to " + std::to_string(maximum);
    throw OSCValueMaskError(
        OSCValueMaskError::Case::wrongCount, found,
        "Expected " + expected + " values but found " + std::to_string(found) + ".");
}

void throwTypeMismatch(std::size_t index, std::string_view expected, const OSCValue& found) {
    throw OSCValueMaskError(OSCValueMaskError::Case::typeMismatch, index,
                            "Value at index " + std::to_string(index) + " is " +
                                std::string(kindName(kindOf(found))) + " but " +
                                std::string(expected) + " was expected.");
}

std::string numberKindName(std::string_view name) {
    return std::string(name) + " (or any number)";
}

}  // namespace kavrin::valueMask
