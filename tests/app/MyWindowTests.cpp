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
    const auto shown = Qt::WindowStaysOnTopHint | Qt::CustomizeWindowHint | Qt::WindowTitleHint;
    EXPECT_EQ(window.windowFlags() & (shown | Qt::WindowCloseButtonHint), shown);

    EXPECT_FALSE(window.close());
    EXPECT_TRUE(window.isVisible());
}

}  // namespace
}  // namespace kavrin
