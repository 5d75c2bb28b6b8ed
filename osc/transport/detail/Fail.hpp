#pragma once

#include <utility>

#include "osc/transport/UdpSocketError.hpp"

namespace kavrin {

/// The failing end of a call that reports through an optional error pointer: stores error there
/// when the caller asked for it and returns false. Internal to the transport layer.
inline bool fail(UdpSocketError* out, UdpSocketError error) {
    if (out) {
        *out = std::move(error);
    }
    return false;
}

}  // namespace kavrin
