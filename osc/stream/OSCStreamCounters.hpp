#pragma once

#include <cstdint>

namespace kavrin {

/// What an OSC stream server or client has seen since it was made. A plain value.
struct OSCStreamCounters {
    std::uint64_t connectionsOpened = 0;  ///< accepted (server) or made (client), TLS done
    std::uint64_t connectionsFailed = 0;  ///< ended with an error, or never opened
    std::uint64_t packetsReceived = 0;
    std::uint64_t messagesDelivered = 0;
    std::uint64_t messagesViewed = 0;  ///< to the view handler
    // Packets dropped, by OSCDropReason, as OSCServer counts datagrams.
    std::uint64_t droppedNotOSC = 0;
    std::uint64_t droppedMalformed = 0;
    std::uint64_t droppedUnexpectedType = 0;
    std::uint64_t droppedInternalInconsistency = 0;
    std::uint64_t droppedOverScheduledLimit = 0;
};

}  // namespace kavrin
