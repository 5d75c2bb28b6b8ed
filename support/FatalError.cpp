#include "support/FatalError.hpp"

#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace kavrin {

namespace {

void printAndAbort(std::string_view message) {
    std::fflush(stdout);  // what was printed before the failure comes before its message
    std::fprintf(stderr, "%.*s\n", static_cast<int>(message.size()), message.data());
    std::fflush(stderr);
    std::abort();
}

std::atomic<FatalErrorHandler> installed{printAndAbort};

}  // namespace

void fatalError(std::string_view message) {
    installed.load()(message);
    std::abort();  // a handler that returned
}

void setFatalErrorHandler(FatalErrorHandler handler) {
    installed.store(handler != nullptr ? handler : printAndAbort);
}

}  // namespace kavrin
