#include "osc/codec/OSCValueTagIdentity.hpp"

namespace kavrin {

bool OSCValueTagIdentity::contains(char tag) const {
    return claimedTags().find(tag) != std::string::npos;
}

std::string OSCValueTagIdentity::claimedTags() const {
    if (const auto* atomic = std::get_if<Atomic>(&identity)) return std::string(1, atomic->tag);
    if (const auto* variable = std::get_if<Variable>(&identity)) return variable->tags;
    return std::string(1, std::get<Variadic>(identity).openingTag);
}

}  // namespace kavrin
