#include "Logger.h"

#include <unistd.h>

#include <cerrno>
#include <future>
#include <locale>
#include <thread>

#include "Support.h"
#include "SystemCalls.h"

namespace kelvane::testing {
namespace {

using Lines = std::vector<std::string>;

const std::string X(10000, 'x'); // more than a stream holds back

// What each write carries when every level logs a line. Writes fail, so that the test's own output stays readable.
Lines writesOfEveryLevel()
{
    Lines writes;
    const CallHook hook([&](const CallRecord& record) {
        EXPECT_EQ(record.fd, STDERR_FILENO);
        writes.emplace_back(static_cast<const char*>(record.buffer), record.length);
        return Outcome {EIO};
    });
    for (const auto level : {KELVANE_DEBUG, KELVANE_INFO, KELVANE_WARNING, KELVANE_ERROR}) {
        errno = ENOSPC;
        Logger(level, "E.cpp", 12345, "function") << errno << " of " << ~0ull << X;
        EXPECT_EQ(errno, ENOSPC);
    }
    return writes;
}

TEST(LoggerTest, EmitsLinesFromTheLowestLevelOnToStandardErrorOrTheSinkThatIsSet)
{
    struct Grouping : std::numpunct<char> {
        char do_thousands_sep() const override { return ','; }
        std::string do_grouping() const override { return "\3"; }
    };
    const std::locale before = std::locale::global(std::locale(std::locale::classic(), new Grouping));
    EXPECT_EQ(writesOfEveryLevel().size(), 4);
    Lines lines, expectedLines, expectedWrites;
    const char* const names[] = {"DEBUG", "INFO", "WARNING", "ERROR"};
    for (const auto lowest : {KELVANE_ERROR, KELVANE_WARNING, KELVANE_INFO, KELVANE_DEBUG}) {
        const std::string text = "28 of 18446744073709551615" + X;
        const std::string write = std::string("kelvane ") + names[lowest] + " E.cpp:12345 function: " + text + "\n";
        expectedWrites.insert(expectedWrites.begin(), write);
        expectedLines.insert(expectedLines.begin(), std::to_string(lowest) + "E.cpp12345function|" + text);
        Logger::setLowestLevel(lowest);
        EXPECT_EQ(writesOfEveryLevel(), expectedWrites);
        Logger::setSink([&](auto level, auto& file, auto line, auto& function, auto& received) {
            lines.push_back(std::to_string(level) + file + std::to_string(line) + function + "|" + received);
            errno = EBADF;
            throw 1;
        });
        EXPECT_EQ(writesOfEveryLevel(), Lines());
        Logger::setSink({});
        EXPECT_EQ(std::exchange(lines, {}), expectedLines);
    }
    std::locale::global(before);
}

TEST(LoggerTest, TakesWhatAStreamTakes)
{
    const auto log = [](auto&& write) {
        Lines lines;
        Logger::setSink([&](auto, auto&, auto, auto&, auto& text) { lines.push_back(text); });
        write(Logger(KELVANE_ERROR, "E.cpp", 1, "function"));
        Logger::setSink({});
        return lines;
    };
    EXPECT_EQ(log([](Logger&& line) { line << 10 << std::hex << ' ' << 255 << std::endl
                                           << std::flush; }),
              Lines {"10 ff"});
    EXPECT_EQ(log([](Logger&& line) { line << "a" << std::endl << "b"; }), Lines {"a\nb"});
}

// A sink may log, and may be replaced while another thread is in it; it then lives until that has left it.
TEST(LoggerTest, SinksAreCalledWithoutALockAndLiveAsLongAsTheyAreUsed)
{
    Lines lines;
    std::promise<void> entered, replaced;
    auto captured = std::make_shared<int>(7);
    const std::weak_ptr<int> life = captured;
    Logger::setSink([&, captured = std::move(captured)](auto, auto&, auto line, auto&, auto& text) {
        lines.push_back(text + std::to_string(*captured));
        if (line == 1) {
            Logger(KELVANE_ERROR, "E.cpp", 2, "function") << "inner";
            entered.set_value();
            replaced.get_future().wait();
            lines.push_back(life.expired() ? "freed" : "alive");
        }
    });
    std::thread logging([] { Logger(KELVANE_ERROR, "E.cpp", 1, "function") << "outer"; });
    entered.get_future().wait();
    Logger::setSink({});
    replaced.set_value();
    logging.join();
    EXPECT_EQ(lines, (Lines {"outer7", "inner7", "alive"}));
    EXPECT_TRUE(life.expired());
}

} // namespace
} // namespace kelvane::testing
