#pragma once

#include <string_view>

namespace kavrin {

// Stops the program over a broken invariant (a port out of range at its point of use, a
// missing outlet, a store that will not load): one line on stderr naming what was wrong, then
// exit with a failure status. No cleanup runs, since other threads may still be working.
[[noreturn]] void fatalError(std::string_view what);

}  // namespace kavrin
