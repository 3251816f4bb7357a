#include "Logger.h"

#include <unistd.h>

#include <cerrno>
#include <locale>

#include "Support.h"
#include "SystemCalls.h"

namespace kelvane::testing {
namespace {

using Lines = std::vector<std::string>;

// What each call wrote while `operation` ran. They all fail, so that the test's own output stays readable.
Lines writesOf(const std::function<void()>& operation)
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

TEST(LoggerTest, WritesLinesFromTheLowestLevelOnAtOnceOrHandsThemToTheSink)
{
    const std::string text = std::string(100000, 'x');
    const auto logAtEveryLevel = [&] {
        for (const auto level : {KELVANE_DEBUG, KELVANE_INFO, KELVANE_WARNING, KELVANE_ERROR}) {
            Logger(level, "Example.cpp", 12, "function") << "blocks: " << 5 << text;
        }
    };
    const std::string rest = " Example.cpp:12 function: blocks: 5" + text + "\n";
    Lines written, logged;
    for (const auto& [lowest, name] : {std::pair(KELVANE_ERROR, "kelvane ERROR"),
                                       {KELVANE_WARNING, "kelvane WARNING"},
                                       {KELVANE_INFO, "kelvane INFO"},
                                       {KELVANE_DEBUG, "kelvane DEBUG"}}) {
        written.insert(written.begin(), name + rest);
        logged.insert(logged.begin(), std::to_string(lowest) + " function: blocks: 5" + text);
        Logger::setLowestLevel(lowest);
        EXPECT_EQ(writesOf(logAtEveryLevel), written);
        EXPECT_EQ(writesOf([&] { EXPECT_EQ(logOf(logAtEveryLevel), logged); }), Lines());
    }
}

TEST(LoggerTest, PreservesErrnoAndSurvivesSinksThatThrow)
{
    std::string line;
    for (const int fate : {0, 1, 2}) { // standard error, where the write fails; a sink; and one that throws
        line.clear();
        if (fate > 0) {
            Logger::setSink([&](auto, auto& file, auto number, auto&, auto& text) {
                line = file + std::to_string(number) + text;
                errno = EBADF;
                fate > 1 ? throw 1 : void();
            });
        }
        const Lines writes = writesOf([] {
            errno = ENOSPC;
            Logger(KELVANE_ERROR, "E.cpp", 1, "f") << errno;
            EXPECT_EQ(errno, ENOSPC);
        });
        Logger::setSink({});
        EXPECT_EQ(line, fate > 0 ? "E.cpp128" : "");
        EXPECT_EQ(writes, fate > 0 ? Lines() : Lines {"kelvane ERROR E.cpp:1 f: 28\n"});
    }
}

TEST(LoggerTest, PrintsPlainNumbersInEveryLocale)
{
    struct Grouping : std::numpunct<char> {
        char do_thousands_sep() const override { return ','; }
        std::string do_grouping() const override { return "\3"; }
    };
    const std::locale before = std::locale::global(std::locale(std::locale::classic(), new Grouping));
    const Lines writes = writesOf([] { Logger(KELVANE_INFO, "E.cpp", 12345, "f") << 1234567 << ' ' << ~0ull; });
    std::locale::global(before);
    EXPECT_EQ(writes, Lines {"kelvane INFO E.cpp:12345 f: 1234567 18446744073709551615\n"});
}

} // namespace
} // namespace kelvane::testing
