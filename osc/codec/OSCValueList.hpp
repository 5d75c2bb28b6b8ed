#pragma once

#include <cstddef>

#include "osc/codec/OSCValue.hpp"
#include "support/SmallVector.hpp"

namespace kavrin {

// A message's values: a vector with room for 8 inside, so that the usual message builds and
// decodes without allocating for its list. Converts from a std::vector<OSCValue>.
inline constexpr std::size_t oscValueListInlineCount = 8;
using OSCValueList = SmallVector<OSCValue, oscValueListInlineCount>;

}  // namespace kavrin
