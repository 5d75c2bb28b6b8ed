#include <poll.h>
#include <unistd.h>

#include <QtTest/QTest>

#include "app/QtMainQueue.hpp"
#include "app/StdoutLines.hpp"

namespace kavrin {
namespace {

// Points stdout at a pipe for the life of the object; what has reached it is read back.
class CapturedStdout {
  public:
    CapturedStdout() {
        EXPECT_EQ(::pipe(pipe_), 0);
        saved_ = ::dup(STDOUT_FILENO);
        ::dup2(pipe_[1], STDOUT_FILENO);
    }
    ~CapturedStdout() {
        ::dup2(saved_, STDOUT_FILENO);
        for (int fd : {saved_, pipe_[0], pipe_[1]}) ::close(fd);
    }

    // Everything written so far, without waiting for more.
    std::string written() {
        std::string text;
        pollfd readable{pipe_[0], POLLIN, 0};
        char chunk[4096];
        while (::poll(&readable, 1, 0) == 1) {
            const ssize_t n = ::read(pipe_[0], chunk, sizeof chunk);
            if (n <= 0) break;
            text.append(chunk, static_cast<std::size_t>(n));
        }
        return text;
    }

  private:
    int pipe_[2] = {-1, -1};
    int saved_ = -1;
};

TEST(StdoutLinesTest, ALineLeavesAtOnceOrWhenItsOutermostBatchCloses) {
    CapturedStdout stdout_;
    StdoutLines::write("one");
    EXPECT_EQ(stdout_.written(), "one\n");
    {
        const StdoutLines::Batch outer;
        StdoutLines::write("two");
        {
            const StdoutLines::Batch inner;
            StdoutLines::write("three \xE2\x86\x92 four");
        }
        EXPECT_EQ(stdout_.written(), "") << "the outer batch is still open";
    }
    EXPECT_EQ(stdout_.written(), "two\nthree \xE2\x86\x92 four\n");
}

TEST(QtMainQueueTest, RunsAFloodInOrderInBatchesEachWrittenAsItEnds) {
    CapturedStdout stdout_;
    auto queue = std::make_shared<QtMainQueue>();
    std::vector<int> ran;
    std::vector<std::string> seenAtStart;  // what stdout held as each item began

    queue->async([&] {
        ran.push_back(0);
        StdoutLines::write("0");
    });
    ASSERT_TRUE(QTest::qWaitFor([&] { return ran.size() == 1; }, 5000)) << "the first runs at once";
    EXPECT_EQ(stdout_.written(), "0\n");

    for (int i = 1; i <= 100; ++i) {
        queue->async([&, i] {
            seenAtStart.push_back(stdout_.written());
            ran.push_back(i);
            StdoutLines::write(std::to_string(i));
        });
    }
    ASSERT_TRUE(QTest::qWaitFor([&] { return ran.size() == 101; }, 5000));
    for (int i = 0; i <= 100; ++i) EXPECT_EQ(ran[static_cast<std::size_t>(i)], i);
    EXPECT_EQ(seenAtStart[99], "") << "items posted together run as one batch";
    std::string all;
    for (int i = 1; i <= 100; ++i) all += std::to_string(i) + "\n";
    EXPECT_EQ(stdout_.written(), all);
}

}  // namespace
}  // namespace kavrin
