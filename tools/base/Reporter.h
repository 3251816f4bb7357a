// What a command tells while it works: notes, and how far it has come.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

namespace kelvane::tool {

// Something that takes long, for as long as this lives. Any thread may tell of its steps.
class Phase {
public:
    Phase(std::string name, std::optional<std::int64_t> total)
        : m_name(std::move(name))
        , m_total(total)
    {
    }
    virtual ~Phase() = default;
    Phase(const Phase&) = delete;
    Phase& operator=(const Phase&) = delete;

    void advance(std::int64_t bytes)
    {
        m_worked += bytes;
        showAfter(INTERVAL);
    }

    void reach(std::int64_t bytes) // in all, as somebody else counted them
    {
        m_worked = bytes;
        showAfter(INTERVAL);
    }

    void carry(std::int64_t bytes) { m_carried = bytes; } // in all, over a line, where that is another number

    void skip(std::int64_t bytes) // done before, at no cost: says nothing about the time left
    {
        m_skipped += bytes;
        showAfter(INTERVAL);
    }

    void showNow() { showAfter({}); }

protected:
    const std::string& name() const { return m_name; }
    std::optional<std::int64_t> total() const { return m_total; } // none of what has no steps
    std::int64_t worked() const { return m_worked; }
    std::optional<std::int64_t> carried() const
    {
        const std::int64_t bytes = m_carried;
        return bytes < 0 ? std::nullopt : std::optional(bytes);
    }
    std::int64_t done() const { return m_worked + m_skipped; }
    std::chrono::duration<double> age() const { return Clock::now() - m_start; }

private:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::milliseconds INTERVAL {100};

    virtual void show() = 0; // by one thread at a time

    // Whoever finds another one at it goes on.
    void showAfter(std::chrono::milliseconds interval)
    {
        const std::unique_lock lock(m_showing, std::try_to_lock);
        if (const Clock::time_point now = Clock::now(); lock && now - m_shown >= interval) {
            m_shown = now;
            show();
        }
    }

    std::string m_name;
    std::optional<std::int64_t> m_total;
    std::atomic<std::int64_t> m_worked = 0; // bytes
    std::atomic<std::int64_t> m_skipped = 0;
    std::atomic<std::int64_t> m_carried = -1;
    Clock::time_point m_start = Clock::now();
    Clock::time_point m_shown = m_start;
    std::mutex m_showing;
};

class Reporter {
public:
    virtual ~Reporter() = default;

    // For the user to know. Any thread.
    virtual void note(const std::string& text) = 0;

    // A phase of so many bytes; one without, that has no steps, is shown at once.
    std::unique_ptr<Phase> begin(const std::string& name, std::optional<std::int64_t> total)
    {
        std::unique_ptr<Phase> phase = phaseOf(name, total);
        if (!total) {
            phase->showNow();
        }
        return phase;
    }

private:
    virtual std::unique_ptr<Phase> phaseOf(const std::string& name, std::optional<std::int64_t> total) = 0;
};

} // namespace kelvane::tool
