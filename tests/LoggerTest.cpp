#include "Logger.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <cerrno>
#include <locale>

#include "Support.h"
#include "SystemCalls.h"

namespace kelvane::testing {
namespace {

using ::testing::ElementsAre;

using Lines = std::vector<std::string>;

struct LoggerTest : ::testing::Test {
    ~LoggerTest() override
    {
        Logger::setSink({});
        Logger::setLowestLevel(KELVANE_DEBUG);
    }

    // What each call wrote while `operation` ran. They all fail, so that the test's own output stays readable.
    static Lines writesOf(const std::function<void()>& operation)
    {
        Lines writes;
        const CallHook hook([&](const CallRecord& record) {
            EXPECT_TRUE(record.call == Call::Write && record.fd == STDERR_FILENO);
            writes.emplace_back(static_cast<const char*>(record.buffer), record.length);
            return Outcome {EIO};
        });
        operation();
        return writes;
    }

    static void logAtEveryLevel()
    {
        for (const auto level : {KELVANE_DEBUG, KELVANE_INFO, KELVANE_WARNING, KELVANE_ERROR}) {
            Logger(level, "Example.cpp", 12, "function") << "blocks: " << 5 << std::string(" of 7");
        }
    }
};

TEST_F(LoggerTest, WritesEachLineToStandardErrorAtOnce)
{
    const std::string rest = " Example.cpp:12 function: blocks: 5 of 7\n";
    EXPECT_THAT(
        writesOf(logAtEveryLevel),
        ElementsAre("kelvane DEBUG" + rest, "kelvane INFO" + rest, "kelvane WARNING" + rest, "kelvane ERROR" + rest));
    const std::string text(100000, 'x');
    EXPECT_THAT(writesOf([&] { Logger(KELVANE_INFO, "E.cpp", 1, "f") << text; }),
                ElementsAre("kelvane INFO E.cpp:1 f: " + text + "\n"));
}

TEST_F(LoggerTest, HandsLinesFromTheLowestLevelOnToTheSinkUntilItIsRemoved)
{
    Lines lines;
    const auto sink = [&](auto level, auto& file, auto line, auto& function, auto& text) {
        lines.push_back(std::to_string(level) + file + std::to_string(line) + function + "|" + text);
    };
    Lines expected;
    for (const auto lowest : {KELVANE_ERROR, KELVANE_WARNING, KELVANE_INFO, KELVANE_DEBUG}) {
        expected.insert(expected.begin(), std::to_string(lowest) + "Example.cpp12function|blocks: 5 of 7");
        lines.clear();
        Logger::setLowestLevel(lowest);
        Logger::setSink(sink);
        EXPECT_EQ(writesOf(logAtEveryLevel), Lines());
        EXPECT_EQ(lines, expected);
        Logger::setSink({});
        EXPECT_EQ(writesOf(logAtEveryLevel).size(), expected.size());
    }
}

TEST_F(LoggerTest, PreservesErrnoAndSurvivesSinksThatThrow)
{
    std::string line;
    const Logger::Sink take = [&](auto, auto&, auto, auto&, auto& text) {
        line = text;
        errno = EBADF;
    };
    const Logger::Sink sinks[] = {{}, // standard error, where the write fails
                                  take,
                                  [&](auto level, auto& file, auto number, auto& function, auto& text) {
                                      take(level, file, number, function, text);
                                      throw 1;
                                  }};
    for (const Logger::Sink& sink : sinks) {
        line.clear();
        Logger::setSink(sink);
        const Lines writes = writesOf([] {
            errno = ENOSPC;
            Logger(KELVANE_ERROR, "E.cpp", 1, "f") << errno;
            EXPECT_EQ(errno, ENOSPC);
        });
        EXPECT_EQ(line, sink ? "28" : "");
        EXPECT_EQ(writes, sink ? Lines() : Lines {"kelvane ERROR E.cpp:1 f: 28\n"});
    }
}

TEST_F(LoggerTest, PrintsPlainNumbersInEveryLocale)
{
    struct Grouping : std::numpunct<char> {
        char do_thousands_sep() const override { return ','; }
        std::string do_grouping() const override { return "\3"; }
    };
    const std::locale before = std::locale::global(std::locale(std::locale::classic(), new Grouping));
    const Lines writes = writesOf([] { Logger(KELVANE_INFO, "E.cpp", 12345, "f") << 1234567 << ' ' << ~0ull; });
    std::locale::global(before);
    EXPECT_THAT(writes, ElementsAre("kelvane INFO E.cpp:12345 f: 1234567 18446744073709551615\n"));
}

} // namespace
} // namespace kelvane::testing
