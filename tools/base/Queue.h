// Hands things from one thread to another, a few at a time.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <mutex>
#include <optional>
#include <utility>

namespace kelvane::tool {

template <class Thing>
class Queue {
public:
    explicit Queue(std::size_t most)
        : m_most(most)
    {
    }

    // Waits for room. False when nobody takes anything any more.
    bool push(Thing thing)
    {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [&] { return m_things.size() < m_most || m_isAbandoned; });
        if (!m_isAbandoned) {
            m_things.push_back(std::move(thing));
        }
        m_changed.notify_all();
        return !m_isAbandoned;
    }

    // The last one was pushed; with a failure, `pop` ends with it after that.
    void finish(std::exception_ptr failure = nullptr)
    {
        const std::scoped_lock lock(m_mutex);
        m_isFinished = true;
        m_failure = std::move(failure);
        m_changed.notify_all();
    }

    void abandon()
    {
        const std::scoped_lock lock(m_mutex);
        m_isAbandoned = true;
        m_changed.notify_all();
    }

    // Waits for the next one; nothing after the last.
    std::optional<Thing> pop()
    {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [&] { return !m_things.empty() || m_isFinished; });
        if (m_things.empty()) {
            if (m_failure) {
                std::rethrow_exception(m_failure);
            }
            return std::nullopt;
        }
        std::optional<Thing> first(std::move(m_things.front()));
        m_things.pop_front();
        m_changed.notify_all();
        return first;
    }

private:
    std::size_t m_most;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Thing> m_things;
    bool m_isFinished = false;
    bool m_isAbandoned = false;
    std::exception_ptr m_failure;
};

} // namespace kelvane::tool
