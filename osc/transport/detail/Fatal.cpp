#include "osc/transport/detail/Fatal.hpp"

#include <cstdio>
#include <cstdlib>

namespace kavrin {

void fatalError(const char* message) {
    std::fprintf(stderr, "%s\n", message);
    std::fflush(stderr);
    std::abort();
}

}  // namespace kavrin
