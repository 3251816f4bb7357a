#include "Logger.h"

#include <cerrno>
#include <locale>
#include <memory>
#include <mutex>
#include <utility>

#include "file/PosixFile.h"

namespace kelvane {

namespace {

struct Configuration {
    std::mutex mutex;
    std::shared_ptr<const Logger::Sink> sink;
    log_level_t lowestLevel = KELVANE_DEBUG;
};

Configuration& configuration()
{
    static auto* const instance = new Configuration; // never destroyed: destructors of statics may log
    return *instance;
}

const char* levelName(log_level_t level)
{
    switch (level) {
    case KELVANE_DEBUG:
        return "DEBUG";
    case KELVANE_INFO:
        return "INFO";
    case KELVANE_WARNING:
        return "WARNING";
    case KELVANE_ERROR:
        return "ERROR";
    }
    return "UNKNOWN";
}

void writeToStandardError(log_level_t level, std::string_view file, int line, std::string_view function,
                          const std::string& text)
{
    std::string output = "kelvane ";
    output.append(levelName(level)).append(" ").append(file).append(":").append(std::to_string(line));
    output.append(" ").append(function).append(": ").append(text).append("\n");
    posix::writeOnce(posix::STANDARD_ERROR, output.data(), output.size());
}

void emit(log_level_t level, std::string_view file, int line, std::string_view function, const std::string& text)
{
    std::shared_ptr<const Logger::Sink> sink;
    {
        Configuration& current = configuration();
        const std::lock_guard<std::mutex> lock(current.mutex);
        if (level < current.lowestLevel) {
            return;
        }
        sink = current.sink;
    }
    if (sink) {
        (*sink)(level, std::string(file), line, std::string(function), text);
    } else {
        writeToStandardError(level, file, line, function, text);
    }
}

} // namespace

Logger::Logger(log_level_t level, std::string_view file, int line, std::string_view function)
    : m_savedErrno(errno)
    , m_level(level)
    , m_file(file)
    , m_line(line)
    , m_function(function)
{
    m_text.imbue(std::locale::classic());
    errno = m_savedErrno; // the statement may stream errno itself
}

Logger& Logger::operator<<(std::ostream& (*manipulator)(std::ostream&))
{
    manipulator(m_text);
    return *this;
}

Logger::~Logger()
{
    try {
        std::string text = m_text.str();
        text.erase(text.find_last_not_of('\n') + 1);
        emit(m_level, m_file, m_line, m_function, text);
    } catch (...) {
        // A lost line must not turn into a failure of the operation that logs.
    }
    errno = m_savedErrno;
}

void Logger::setSink(Sink sink)
{
    auto next = sink ? std::make_shared<const Sink>(std::move(sink)) : nullptr;
    const std::lock_guard<std::mutex> lock(configuration().mutex);
    configuration().sink.swap(next);
}

void Logger::setLowestLevel(log_level_t level)
{
    const std::lock_guard<std::mutex> lock(configuration().mutex);
    configuration().lowestLevel = level;
}

} // namespace kelvane
