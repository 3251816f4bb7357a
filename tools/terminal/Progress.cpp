#include "terminal/Progress.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <utility>

#include "base/Text.h"

namespace kelvane::tool {

namespace {

constexpr std::chrono::milliseconds INTERVAL(100);

Progress::Listener listener;

} // namespace

Progress::Progress(std::string phase, std::int64_t total, ProgressMode mode)
    : m_phase(std::move(phase))
    , m_total(total)
    , m_form(mode == ProgressMode::Json                                       ? Form::Json
                 : mode == ProgressMode::None || ::isatty(STDERR_FILENO) == 0 ? Form::None
                                                                              : Form::Line)
    , m_shown(m_start)
{
}

Progress::~Progress()
{
    if (m_form == Form::Json) {
        try {
            show(true);
        } catch (const std::exception&) {
            // A line less; what is going on goes on.
        }
    } else if (m_form == Form::Line && m_shown != m_start) {
        std::fputs("\r\033[K", stderr);
    }
}

void Progress::announce()
{
    if (m_form == Form::Line) {
        std::fprintf(stderr, "\r%s ...\033[K", m_phase.c_str());
        std::fflush(stderr);
        m_shown = Clock::now();
    } else {
        show(true);
    }
}

void Progress::listen(Listener next)
{
    listener = std::move(next);
}

void Progress::reach(std::int64_t bytes)
{
    m_worked = bytes;
    show(false);
}

void Progress::advance(std::int64_t bytes)
{
    m_worked += bytes;
    show(false);
}

void Progress::skip(std::int64_t bytes)
{
    m_skipped += bytes;
    show(false);
}

void Progress::show(bool last)
{
    if (m_form == Form::None && !listener) {
        return;
    }
    const std::unique_lock lock(m_showing, std::try_to_lock);
    const Clock::time_point now = Clock::now();
    if (!lock || (!last && now - m_shown < INTERVAL)) {
        return;
    }
    m_shown = now;
    const std::int64_t worked = m_worked;
    const std::int64_t done = worked + m_skipped;
    if (listener) {
        listener(m_phase, done, m_total);
        return;
    }
    const double seconds = std::chrono::duration<double>(now - m_start).count();
    const double rate = seconds > 0 ? static_cast<double>(worked) / seconds : 0;
    const bool isSteady = seconds > 1; // before, a rate says little
    const double left = rate > 0 && isSteady ? static_cast<double>(m_total - done) / rate : 0;
    if (m_form == Form::Json) {
        const nlohmann::ordered_json line
            = {{"phase", m_phase},
               {"done", done},
               {"total", m_total},
               {"bytesPerSecond", rate},
               {"secondsLeft", isSteady ? nlohmann::ordered_json(left) : nlohmann::ordered_json()}};
        const auto replacing = nlohmann::ordered_json::error_handler_t::replace; // the phase may be another machine's
        std::fprintf(stderr, "%s\n", line.dump(-1, ' ', false, replacing).c_str());
    } else {
        constexpr int WIDTH = 30;
        const double share = m_total > 0 ? std::min(1.0, static_cast<double>(done) / static_cast<double>(m_total)) : 1;
        const std::string bar(static_cast<std::size_t>(share * WIDTH), '#');
        std::fprintf(stderr, "\r%-8s [%-*s] %3.0f%%  %s/s  %s left\033[K", m_phase.c_str(), WIDTH, bar.c_str(),
                     share * 100, humanSize(rate).c_str(), rate > 0 && isSteady ? humanTime(left).c_str() : "?");
    }
    std::fflush(stderr);
}

} // namespace kelvane::tool
