#include <QApplication>
#include <QClipboard>
#include <QScrollBar>
#include <QtTest/QTest>

#include "app/LineStore.hpp"
#include "app/MessageLogView.hpp"

namespace kavrin {
namespace {

TEST(LineStoreTest, FindsEveryLineAcrossBlocksAndTheLongest) {
    LineStore store;
    for (int i = 0; i < 10'000; ++i) store.append("/load/msg/" + std::to_string(i));  // 3 blocks
    store.append("");
    store.append("/the/longest/line/of/them/all");
    store.append("/as/long/as/the/longest/line!");

    ASSERT_EQ(store.size(), 10'003u);
    EXPECT_EQ(store[0], "/load/msg/0");
    EXPECT_EQ(store[4095], "/load/msg/4095");
    EXPECT_EQ(store[4096], "/load/msg/4096");
    EXPECT_EQ(store[9999], "/load/msg/9999");
    EXPECT_EQ(store[10'000], "");
    EXPECT_EQ(store.longest(), 10'001u) << "the first of the longest";
}

class MessageLogViewTest : public ::testing::Test {
  protected:
    MessageLogViewTest() {
        view.resize(200, 100);
        view.show();
    }

    // Waits until the view has shown what was appended.
    void waitForRefresh() {
        EXPECT_TRUE(QTest::qWaitFor([&] {
            return view.verticalScrollBar()->maximum() ==
                   std::max(0, static_cast<int>(view.lineCount()) -
                                   view.verticalScrollBar()->pageStep());
        }, 5000));
    }

    MessageLogView view;
};

TEST_F(MessageLogViewTest, CopiesTheSelectedLinesAndShowsTheNewestAfterEveryBatchOfAppends) {
    for (const char* line : {"/a", "/b/\xC3\xA9", "/c"}) view.append(line);
    waitForRefresh();
    const int lineHeight = view.fontMetrics().lineSpacing();
    QTest::mouseClick(view.viewport(), Qt::LeftButton, {}, QPoint(5, lineHeight / 2));
    QTest::mouseClick(view.viewport(), Qt::LeftButton, Qt::ShiftModifier,
                      QPoint(5, lineHeight + lineHeight / 2));
    QTest::keySequence(&view, QKeySequence::Copy);
    EXPECT_EQ(QApplication::clipboard()->text(), QString::fromUtf8("/a\n/b/\xC3\xA9\n"));
    QTest::keySequence(&view, QKeySequence::SelectAll);
    QTest::keySequence(&view, QKeySequence::Copy);
    EXPECT_EQ(QApplication::clipboard()->text(), QString::fromUtf8("/a\n/b/\xC3\xA9\n/c\n"));

    for (int i = 3; i < 1000; ++i) view.append("/line/" + std::to_string(i));
    EXPECT_EQ(view.lineCount(), 1000u) << "stored at once";
    waitForRefresh();
    QScrollBar* bar = view.verticalScrollBar();
    EXPECT_GT(bar->maximum(), 0);
    EXPECT_EQ(bar->value(), bar->maximum()) << "scrolled to the end";
    bar->setValue(0);  // the user scrolls up; the next line brings the end back, as before
    view.append("/line/1000");
    waitForRefresh();
    EXPECT_EQ(bar->value(), bar->maximum());
    EXPECT_EQ(view.line(1000), "/line/1000");
    EXPECT_EQ(view.text(998, 5000), "/line/998\n/line/999\n/line/1000\n");
}

}  // namespace
}  // namespace kavrin
