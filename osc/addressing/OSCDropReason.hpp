#pragma once

#include <atomic>
#include <cstdint>

#include "osc/codec/OSCError.hpp"

namespace kavrin {

/// Why a server dropped a packet it received, the same for every server and transport.
enum class OSCDropReason {
    notOSC,                 ///< neither a message nor a bundle
    malformed,              ///< decoding failed: OSCDecodeError::Case::malformed
    unexpectedType,         ///< OSCDecodeError::Case::unexpectedType
    internalInconsistency,  ///< OSCDecodeError::Case::internalInconsistency
    overScheduledLimit,     ///< its waiting messages would pass the bound (OSCScheduledLimit)
};

/// The reason a packet that failed to decode is dropped for.
inline OSCDropReason dropReasonOf(const OSCDecodeError& error) {
    switch (error.errorCase()) {
        case OSCDecodeError::Case::malformed:
            return OSCDropReason::malformed;
        case OSCDecodeError::Case::unexpectedType:
            return OSCDropReason::unexpectedType;
        default:
            return OSCDropReason::internalInconsistency;
    }
}

/// A server's count of what it dropped, by reason: added to on its receive queue, read from
/// any thread.
struct OSCDropTally {
    std::atomic<std::uint64_t> notOSC{0}, malformed{0}, unexpectedType{0},
        internalInconsistency{0}, overScheduledLimit{0};

    void add(OSCDropReason reason) {
        switch (reason) {
            case OSCDropReason::notOSC:
                ++notOSC;
                break;
            case OSCDropReason::malformed:
                ++malformed;
                break;
            case OSCDropReason::unexpectedType:
                ++unexpectedType;
                break;
            case OSCDropReason::internalInconsistency:
                ++internalInconsistency;
                break;
            case OSCDropReason::overScheduledLimit:
                ++overScheduledLimit;
                break;
        }
    }
};

}  // namespace kavrin
