#include "app/DroppedDatagrams.hpp"

#include "osc/transport/OSCServer.hpp"

namespace kavrin {
namespace {

// Written against OSCServer::counters(), which the library is gaining; this builds with and
// without it.
template <class Server>
concept Counting = requires(const Server& server) { server.counters(); };

template <class Server>
std::uint64_t dropped(const Server& server) {
    if constexpr (Counting<Server>) {
        const auto counters = server.counters();
        return counters.droppedNotOSC + counters.droppedMalformed +
               counters.droppedUnexpectedType + counters.droppedInternalInconsistency;
    } else {
        return 0;  // STUB until the library has OSCServer::counters(); delete this branch then
    }
}

}  // namespace

std::uint64_t droppedDatagrams(const OSCServer& server) {
    return dropped(server);
}

bool libraryCountsDrops() {
    return Counting<OSCServer>;
}

}  // namespace kavrin
