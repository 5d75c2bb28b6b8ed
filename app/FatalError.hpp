#pragma once

#include <string_view>

namespace kavrin {

// The monitor's way to stop over a broken invariant (a port out of range at its point of use, a
// missing outlet, a store that will not load, or one of the library's): one line on stderr,
// "kavrin: fatal error: " and what was wrong, then exit with a failure status. No cleanup runs,
// since other threads may still be working. Installed as the fatalError() handler of the
// support library by installMonitorFatalErrorHandler(), at the start of main().
[[noreturn]] void stopOnFatalError(std::string_view what);
void installMonitorFatalErrorHandler();

}  // namespace kavrin
