#pragma once

#include <array>
#include <atomic>
#include <cstddef>
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
class OSCDropTally {
  public:
    void add(OSCDropReason reason) { ++counts_[static_cast<std::size_t>(reason)]; }
    std::uint64_t operator[](OSCDropReason reason) const {
        return counts_[static_cast<std::size_t>(reason)].load();
    }

  private:
    // One per reason, overScheduledLimit being the last.
    std::array<std::atomic<std::uint64_t>,
               static_cast<std::size_t>(OSCDropReason::overScheduledLimit) + 1>
        counts_{};
};

}  // namespace kavrin
