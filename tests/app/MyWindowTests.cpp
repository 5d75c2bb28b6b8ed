#include <gtest/gtest.h>

#include <QWidget>
#include <QWindow>

#include "app/MyWindow.hpp"

namespace kavrin {
namespace {

TEST(MyWindow, MakesATranslucentFloatingWindowThatCannotBeClosed) {
    QWidget window;
    MyWindow controller(&window);
    controller.windowDidLoad();
    window.show();

    ASSERT_NE(window.windowHandle(), nullptr);
    EXPECT_DOUBLE_EQ(window.windowHandle()->opacity(), 0.85);
    EXPECT_TRUE(window.testAttribute(Qt::WA_TranslucentBackground));
    const Qt::WindowFlags flags = window.windowFlags();
    EXPECT_TRUE(flags.testFlag(Qt::WindowStaysOnTopHint));
    EXPECT_TRUE(flags.testFlag(Qt::CustomizeWindowHint));
    EXPECT_TRUE(flags.testFlag(Qt::WindowTitleHint));
    EXPECT_FALSE(flags.testFlag(Qt::WindowCloseButtonHint));

    EXPECT_FALSE(window.close());
    EXPECT_TRUE(window.isVisible());
}

}  // namespace
}  // namespace kavrin
