#include "app/FatalError.hpp"

#include <cstdio>
#include <cstdlib>

#include "app/StdoutLines.hpp"
#include "support/FatalError.hpp"

namespace kavrin {

void stopOnFatalError(std::string_view what) {
    StdoutLines::flush();  // lines of a batch cut short
    std::fflush(stdout);
    std::fprintf(stderr, "kavrin: fatal error: %.*s\n", static_cast<int>(what.size()), what.data());
    std::fflush(stderr);
    std::_Exit(EXIT_FAILURE);
}

void installMonitorFatalErrorHandler() {
    setFatalErrorHandler(stopOnFatalError);
}

}  // namespace kavrin
