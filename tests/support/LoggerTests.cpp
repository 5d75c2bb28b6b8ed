#include <cstdio>
#include <latch>
#include <sstream>

#include <fmt/format.h>

#include "support/Logger.hpp"
#include "support/StderrLogSink.hpp"

namespace {

// A value that counts how often it is formatted.
struct Counted {
    int* formatted;
};

}  // namespace

template <>
struct fmt::formatter<Counted> : fmt::formatter<int> {
    auto format(const Counted& counted, fmt::format_context& context) const {
        return fmt::formatter<int>::format(++*counted.formatted, context);
    }
};

namespace kavrin {
namespace {

// Keeps "level category: message" lines. Deliberately unlocked, and appending a character at a
// time: only the logger's one-call-at-a-time rule keeps concurrent lines whole.
class TextSink : public LogSink {
  public:
    void write(const LogRecord& record) override {
        const auto line =
            fmt::format("{} {}: {}\n", logLevelName(record.level), record.category, record.message);
        for (const char c : line) text += c;
    }
    std::string text;
};

TEST(Logger, WritesWhatEachCategoryLevelLetThrough) {
    Logger logger;
    const auto sink = std::make_shared<TextSink>();
    logger.setSinks({sink});
    const auto transport = logger.category("transport");
    transport.info("hidden {}", 1);
    transport.warning("shown {}", 2);
    const auto problems =
        logger.configure(" transport = DEBUG ,, *=error,codec=verbose,garbage,=info");
    // Named before and after configuration alike, and again by name.
    const auto codec = logger.category("codec");
    const auto other = logger.category("other");
    transport.debug("port {}", 8001);
    logger.category("transport").notice("same {}", "category");
    codec.warning("hidden");
    // A disabled level formats nothing.
    int formatted = 0;
    codec.debug("{}", Counted{&formatted});
    codec.log(LogLevel::info, "{}", Counted{&formatted});
    codec.error("bad tag '{}', formatted {}", 'x', Counted{&formatted});
    other.fault("fault");
    EXPECT_EQ(sink->text,
              "warning transport: shown 2\n"
              "debug transport: port 8001\n"
              "notice transport: same category\n"
              "error codec: bad tag 'x', formatted 1\n"
              "fault other: fault\n");
    EXPECT_EQ(problems, (std::vector<std::string>{
                            "unknown level \"verbose\" for codec (expected one of debug, info, "
                            "notice, warning, error, fault, off); skipped",
                            "\"garbage\" is not category=level; skipped",
                            "\"=info\" is not category=level; skipped"}));

    logger.setLevel("codec", LogLevel::off);
    logger.setDefaultLevel(LogLevel::debug);
    EXPECT_FALSE(codec.enabled(LogLevel::fault));
    EXPECT_TRUE(other.enabled(LogLevel::debug));
    EXPECT_FALSE(other.enabled(LogLevel::off));  // a threshold, never a message level
}

TEST(Logger, LinesFromManyThreadsStayWhole) {
    Logger logger;
    const auto sink = std::make_shared<TextSink>();
    logger.setSinks({sink});
    logger.setDefaultLevel(LogLevel::debug);
    constexpr int threadCount = 4;
    constexpr int linesEach = 2000;
    std::latch start(threadCount);
    std::vector<std::thread> threads;
    for (int t = 0; t < threadCount; ++t) {
        threads.emplace_back([&logger, &start, t] {
            start.arrive_and_wait();
            // Categories are made concurrently too.
            const auto log = logger.category(fmt::format("thread{}", t));
            for (int i = 0; i < linesEach; ++i) log.info("line {} of thread {} {}", i, t, "end");
        });
    }
    for (auto& thread : threads) thread.join();

    std::istringstream lines(sink->text);
    int count = 0;
    for (std::string line; std::getline(lines, line); ++count) {
        int category = -1, i = -1, thread = -2, end = 0;
        const int read = std::sscanf(line.c_str(), "info thread%d: line %d of thread %d end%n",
                                     &category, &i, &thread, &end);
        ASSERT_TRUE(read == 3 && end == static_cast<int>(line.size())) << line;
        EXPECT_EQ(category, thread) << line;
    }
    EXPECT_EQ(count, threadCount * linesEach);
}

TEST(StderrLogSink, WritesOneStampedLinePerMessage) {
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::tmpfile(), &std::fclose);
    ASSERT_NE(file, nullptr);
    Logger logger;
    logger.setSinks({std::make_shared<StderrLogSink>(fileno(file.get()))});
    // Lines stay whole across threads by the logger's rule, tested above.
    const auto log = logger.category("transport");
    for (int i = 0; i < 3; ++i) log.warning("dropped {} bytes: {}", 12, "too short");

    std::rewind(file.get());
    std::string text(1 << 16, '\0');
    text.resize(std::fread(text.data(), 1, text.size(), file.get()));
    std::istringstream lines(text);
    int count = 0;
    for (std::string line; std::getline(lines, line); ++count) {
        EXPECT_THAT(line, ::testing::MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:"
                                                  "[0-9]{2}\\.[0-9]{3} warning transport: "
                                                  "dropped 12 bytes: too short"));
    }
    EXPECT_EQ(count, 3);
}

}  // namespace
}  // namespace kavrin
