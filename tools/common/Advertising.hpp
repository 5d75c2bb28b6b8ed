#pragma once

#include <string>

#include "osc/discovery/OSCService.hpp"

namespace kavrin::tools {

// What --advertise fails with where the build has no zeroconf.
inline constexpr const char* noZeroconf = "--advertise: built without zeroconf (libavahi-client-dev)";

// An advertiser's status handler for the tools. Standard output is for a tool's own lines, so
// how the publishing goes is logged (standard error): published as info, trouble as a warning.
void logAdvertising(const OSCZeroconfStatus& status, const std::string& publishedName);

}  // namespace kavrin::tools
