// How far a command has come: a line that is drawn again and again, or JSON lines, on standard error.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

namespace kelvane::tool {

enum class ProgressMode { Automatic, None, Json };

// May be advanced by several threads at once.
class Progress {
public:
    // Automatic draws when standard error is a terminal.
    Progress(std::string phase, std::int64_t total, ProgressMode mode);
    ~Progress(); // removes the line
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void announce(); // at once, for what has no steps
    void advance(std::int64_t bytes);
    void reach(std::int64_t bytes); // in all, as somebody else counted them
    void skip(std::int64_t bytes);  // done before, at no cost: says nothing about the time left

    // Who is told of every progress, instead of standard error, at the same intervals; nobody when empty. For a program
    // that has no terminal of its own.
    using Listener = std::function<void(const std::string& phase, std::int64_t done, std::int64_t total)>;
    static void listen(Listener listener);

private:
    using Clock = std::chrono::steady_clock;

    void show(bool last);

    std::string m_phase;
    std::int64_t m_total;
    enum class Form { None, Line, Json } m_form;
    std::atomic<std::int64_t> m_worked = 0;
    std::atomic<std::int64_t> m_skipped = 0;
    Clock::time_point m_start = Clock::now();
    Clock::time_point m_shown;
    std::mutex m_showing;
};

} // namespace kelvane::tool
