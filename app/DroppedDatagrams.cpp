#include "app/DroppedDatagrams.hpp"

#include "osc/transport/OSCServer.hpp"

namespace kavrin {

std::uint64_t droppedDatagrams(const OSCServer& server) {
    const auto counters = server.counters();
    return counters.droppedNotOSC + counters.droppedMalformed + counters.droppedUnexpectedType +
           counters.droppedInternalInconsistency;
}

}  // namespace kavrin
