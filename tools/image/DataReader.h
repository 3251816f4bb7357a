// Reads an image piece by piece into a few buffers that are used again and again.
#pragma once

#include <condition_variable>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "base/Range.h"
#include "image/Image.h"

namespace kelvane::tool {

class DataReader {
public:
    virtual ~DataReader() = default;

    // How many requests may wait, the one that is worked on included.
    virtual std::size_t depth() const = 0;

    virtual void request(Range range) = 0;

    // The data of the oldest request, valid until the next call. Fails when reading did.
    virtual char* next() = 0;
};

// On the thread that asks for the data.
class DirectReader : public DataReader {
public:
    DirectReader(const Image& image, std::int64_t bufferSize);
    std::size_t depth() const override { return 1; }
    void request(Range range) override { m_range = range; }
    char* next() override;

private:
    const Image& m_image;
    std::unique_ptr<char[]> m_buffer;
    Range m_range = {};
};

// On a thread of its own, while the data before it is worked on.
class OverlappedReader : public DataReader {
public:
    OverlappedReader(const Image& image, std::int64_t bufferSize);
    ~OverlappedReader() override;
    std::size_t depth() const override { return BUFFERS; }
    void request(Range range) override;
    char* next() override;

private:
    static constexpr std::size_t BUFFERS = 4;

    void run();

    const Image& m_image;
    std::vector<std::unique_ptr<char[]>> m_buffers;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Range> m_requests;
    std::size_t m_filled = 0; // counts of buffers since the start; they take turns
    std::size_t m_taken = 0;
    std::exception_ptr m_failure;
    bool m_ends = false;
    std::thread m_thread;
};

} // namespace kelvane::tool
