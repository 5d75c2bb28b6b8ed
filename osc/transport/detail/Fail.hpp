#pragma once

#include <type_traits>
#include <utility>

namespace kavrin {

/// The failing end of a call that reports through an optional error pointer: stores error there
/// when the caller asked for it and returns false. Serves every socket's error type.
/// Internal to the transport layer.
template <class Error>
bool fail(Error* out, std::type_identity_t<Error> error) {
    if (out) {
        *out = std::move(error);
    }
    return false;
}

}  // namespace kavrin
