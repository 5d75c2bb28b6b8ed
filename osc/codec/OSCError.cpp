#include "osc/codec/OSCError.hpp"

#include <utility>

namespace kavrin {

OSCDecodeError::OSCDecodeError(Case errorCase, std::string message)
    : std::runtime_error(std::move(message)), case_(errorCase) {}

OSCDecodeError OSCDecodeError::malformed(std::string message) {
    return OSCDecodeError(Case::malformed, std::move(message));
}

OSCEncodeError::OSCEncodeError(Case errorCase, std::string message)
    : std::runtime_error(std::move(message)), case_(errorCase) {}

OSCSerializationError::OSCSerializationError(Case errorCase, std::string message)
    : std::runtime_error(std::move(message)), case_(errorCase) {}

OSCValueMaskError::OSCValueMaskError(Case errorCase, std::size_t index, std::string message)
    : std::runtime_error(std::move(message)), case_(errorCase), index_(index) {}

}  // namespace kavrin
