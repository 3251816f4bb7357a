#include "image/DataReader.h"

namespace kelvane::tool {

namespace {

std::unique_ptr<char[]> makeBuffer(std::int64_t size)
{
    return std::make_unique_for_overwrite<char[]>(static_cast<std::size_t>(size));
}

} // namespace

DirectReader::DirectReader(const Image& image, std::int64_t bufferSize)
    : m_image(image)
    , m_buffer(makeBuffer(bufferSize))
{
}

char* DirectReader::next()
{
    m_image.read(m_buffer.get(), m_range);
    return m_buffer.get();
}

OverlappedReader::OverlappedReader(const Image& image, std::int64_t bufferSize)
    : m_image(image)
{
    for (std::size_t i = 0; i < BUFFERS; ++i) {
        m_buffers.push_back(makeBuffer(bufferSize));
    }
    m_thread = std::thread([this] { run(); });
}

OverlappedReader::~OverlappedReader()
{
    {
        const std::scoped_lock lock(m_mutex);
        m_ends = true;
    }
    m_changed.notify_all();
    m_thread.join();
}

void OverlappedReader::request(Range range)
{
    {
        const std::scoped_lock lock(m_mutex);
        m_requests.push_back(range);
    }
    m_changed.notify_all();
}

char* OverlappedReader::next()
{
    std::unique_lock lock(m_mutex);
    ++m_taken;
    m_changed.notify_all(); // the buffer before this one is free
    m_changed.wait(lock, [&] { return m_filled >= m_taken || m_failure; });
    if (m_filled < m_taken) {
        std::rethrow_exception(m_failure);
    }
    return m_buffers[(m_taken - 1) % BUFFERS].get();
}

void OverlappedReader::run()
{
    std::unique_lock lock(m_mutex);
    for (;;) {
        // The buffer taken last is in use.
        const auto hasWork
            = [&] { return !m_requests.empty() && m_filled + 1 < std::max<std::size_t>(m_taken, 1) + BUFFERS; };
        m_changed.wait(lock, [&] { return m_ends || hasWork(); });
        if (m_ends) {
            return;
        }
        const Range range = m_requests.front();
        m_requests.pop_front();
        char* const buffer = m_buffers[m_filled % BUFFERS].get();
        lock.unlock();
        std::exception_ptr failure;
        try {
            m_image.read(buffer, range);
        } catch (...) {
            failure = std::current_exception();
        }
        lock.lock();
        if (failure) {
            m_failure = failure;
            m_changed.notify_all();
            return;
        }
        ++m_filled;
        m_changed.notify_all();
    }
}

} // namespace kelvane::tool
