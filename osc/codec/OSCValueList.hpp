#pragma once

#include <cstddef>

#include "osc/codec/OSCValue.hpp"
#include "support/SmallVector.hpp"

namespace kavrin {

// A message's values: a vector with room for 12 inside, so that the usual message builds and
// decodes without allocating for its list; a message of many values (a tracked object's whole
// state, say) still fits, and each room costs sizeof(OSCValue), 48 bytes, in every message.
// Converts from a std::vector<OSCValue>.
inline constexpr std::size_t oscValueListInlineCount = 12;
using OSCValueList = SmallVector<OSCValue, oscValueListInlineCount>;

}  // namespace kavrin
