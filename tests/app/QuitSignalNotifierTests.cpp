#include <QSignalSpy>
#include <QtTest/QTest>
#include <csignal>

#include "app/QuitSignalNotifier.hpp"

namespace kavrin {
namespace {

TEST(QuitSignalNotifier, DeliversSignalsOnTheEventLoop) {
    QuitSignalNotifier notifier;
    QSignalSpy activated(&notifier, &QuitSignalNotifier::activated);

    ASSERT_EQ(std::raise(SIGTERM), 0);
    ASSERT_EQ(std::raise(SIGINT), 0);
    EXPECT_TRUE(activated.isEmpty()) << "not from inside the handler";
    EXPECT_TRUE(QTest::qWaitFor([&] { return activated.size() == 2; }, 5000));
    EXPECT_EQ(activated.at(0).at(0).toInt(), SIGTERM);
    EXPECT_EQ(activated.at(1).at(0).toInt(), SIGINT);
}

}  // namespace
}  // namespace kavrin
