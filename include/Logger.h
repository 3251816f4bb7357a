// The log lines of the library, and how an application takes them over.
#pragma once

#include <functional>
#include <sstream>
#include <string>
#include <string_view>

#include "Export.h"

namespace kelvane {

// How much a line matters.
enum log_level_t { KELVANE_DEBUG = 0, KELVANE_INFO = 1, KELVANE_WARNING = 2, KELVANE_ERROR = 3 };

// One log line, built by streaming into a temporary and emitted at the end of the statement:
//     Logger(KELVANE_INFO, "Example.cpp", __LINE__, __func__) << "blocks: " << count;
// Numbers appear in plain decimal, whatever the global locale. `errno` is the same before and after.
//
// Unless an application installs a sink, a line goes to standard error in one write:
//     kelvane INFO Example.cpp:12 function: blocks: 5
class KELVANE_EXPORT Logger {
public:
    // What a sink receives: the level, the source file's name without directories, the line, the
    // function's name and the text without a line end. The strings live until the sink returns.
    using Sink = std::function<void(log_level_t level, const std::string& file, int line, const std::string& function,
                                    const std::string& text)>;

    // `file` and `function` must live until the end of the statement.
    Logger(log_level_t level, std::string_view file, int line, std::string_view function);
    ~Logger();
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    // Appends to the line, as an output stream would.
    template <class T>
    Logger& operator<<(const T& value)
    {
        m_text << value;
        return *this;
    }

    // Manipulators such as std::endl. Line ends at the end of the text are dropped: every line has its own.
    Logger& operator<<(std::ostream& (*manipulator)(std::ostream&));

    // Sends all lines of the process to `sink` from now on; an empty one restores standard error. May be
    // called at any time on any thread. The sink is called on the thread that logs, perhaps on several at
    // once, and perhaps still for a moment after it was replaced. What it throws is dropped. It must not
    // install a sink itself.
    static void setSink(Sink sink);

    // Drops lines below `level` from now on. At the start everything is emitted. Any thread, any time.
    static void setLowestLevel(log_level_t level);

private:
    int m_savedErrno; // first, so that it is taken before the other members are built
    log_level_t m_level;
    std::string_view m_file;
    int m_line;
    std::string_view m_function;
    std::ostringstream m_text;
};

} // namespace kelvane
