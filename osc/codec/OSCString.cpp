#include "osc/codec/OSCString.hpp"

#include <ostream>

namespace kavrin {

std::ostream& operator<<(std::ostream& stream, const OSCString& text) {
    return stream << text.view();
}

}  // namespace kavrin
