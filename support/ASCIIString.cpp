#include "support/ASCIIString.hpp"

#include "support/LossyASCII.hpp"

namespace kavrin {

ASCIIString ASCIIString::printable(std::string text) {
    ASCIIStringView::check(text, true);
    ASCIIString result;
    result.text_ = std::move(text);
    return result;
}

ASCIIString ASCIIString::lossy(std::string_view utf8) {
    ASCIIString result;
    result.text_ = lossyASCII(utf8);
    return result;
}

}  // namespace kavrin
