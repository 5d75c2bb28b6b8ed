#include "support/FatalError.hpp"

#include <cstdio>
#include <cstdlib>

namespace kavrin {
namespace {

[[noreturn]] void exitWithThree(std::string_view message) {
    std::fprintf(stderr, "custom: %.*s\n", static_cast<int>(message.size()), message.data());
    std::_Exit(3);
}

void returnsAnyway(std::string_view) {}

TEST(FatalErrorDeathTest, StopsThroughTheHandlerInForceAndNeverReturns) {
    EXPECT_DEATH(fatalError("invariant broken"), "invariant broken");
    EXPECT_EXIT(
        {
            setFatalErrorHandler(exitWithThree);
            fatalError("invariant broken");
        },
        testing::ExitedWithCode(3), "custom: invariant broken");
    // A handler that returns still ends the program; nullptr brings the default back.
    EXPECT_DEATH(
        {
            setFatalErrorHandler(returnsAnyway);
            fatalError("returned");
        },
        "");
    EXPECT_DEATH(
        {
            setFatalErrorHandler(exitWithThree);
            setFatalErrorHandler(nullptr);
            fatalError("default again");
        },
        "^default again");
}

}  // namespace
}  // namespace kavrin
