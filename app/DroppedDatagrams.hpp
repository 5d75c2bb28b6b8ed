#pragma once

#include <cstdint>

namespace kavrin {

class OSCServer;

// The datagrams `server` dropped since it started because they were not OSC or could not be
// decoded (not those over its scheduling limit, which the monitor never sets). Any thread.
std::uint64_t droppedDatagrams(const OSCServer& server);

}  // namespace kavrin
