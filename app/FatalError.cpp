#include "app/FatalError.hpp"

#include <cstdio>
#include <cstdlib>

namespace kavrin {

void fatalError(std::string_view what) {
    std::fflush(stdout);
    std::fprintf(stderr, "kavrin: fatal error: %.*s\n", static_cast<int>(what.size()), what.data());
    std::fflush(stderr);
    std::_Exit(EXIT_FAILURE);
}

}  // namespace kavrin
