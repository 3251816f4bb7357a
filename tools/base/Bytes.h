// Memory for pieces of data that go through it one after the other, so that the system need not bring in new pages for
// each of them.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <new>
#include <string_view>
#include <utility>
#include <vector>

namespace kelvane::tool {

class BytesPool;

// Whole pages, as what goes past the system's memory needs them.
struct FreeMemory {
    void operator()(char* memory) const { std::free(memory); }
};
using Memory = std::unique_ptr<char[], FreeMemory>;

inline Memory pagesFor(std::size_t size)
{
    constexpr std::size_t PAGE = 4096;
    Memory memory(static_cast<char*>(std::aligned_alloc(PAGE, (size / PAGE + 1) * PAGE)));
    return memory ? std::move(memory) : throw std::bad_alloc();
}

// Goes back to its pool with its owner, which may be on another thread.
class Bytes {
public:
    Bytes() = default;
    ~Bytes();
    Bytes(Bytes&& other) noexcept
        : m_pool(std::move(other.m_pool))
        , m_memory(std::move(other.m_memory))
        , m_size(std::exchange(other.m_size, 0))
    {
    }
    Bytes& operator=(Bytes&& other) noexcept
    {
        std::swap(m_pool, other.m_pool);
        std::swap(m_memory, other.m_memory);
        std::swap(m_size, other.m_size);
        return *this;
    }

    char* data() { return m_memory.get(); }
    const char* data() const { return m_memory.get(); }
    std::size_t size() const { return m_size; }
    std::size_t room() const; // that it takes
    std::string_view view() const { return {m_memory.get(), m_size}; }

private:
    friend class BytesPool;

    std::shared_ptr<BytesPool> m_pool;
    Memory m_memory;
    std::size_t m_size = 0;
};

class BytesPool : public std::enable_shared_from_this<BytesPool> {
public:
    // What is larger than `most`, or small, is not kept.
    explicit BytesPool(std::size_t most)
        : m_most(most)
    {
    }

    Bytes take(std::size_t size)
    {
        Bytes bytes;
        bytes.m_size = size;
        if (size <= SMALL) {
            bytes.m_memory.reset(static_cast<char*>(std::malloc(size + 1)));
            return bytes.m_memory ? std::move(bytes) : throw std::bad_alloc();
        }
        if (size > m_most) {
            bytes.m_memory = pagesFor(size);
            return bytes;
        }
        bytes.m_pool = shared_from_this();
        const std::scoped_lock lock(m_mutex);
        if (m_kept.empty()) {
            bytes.m_memory = pagesFor(m_most);
        } else {
            bytes.m_memory = std::move(m_kept.back());
            m_kept.pop_back();
        }
        return bytes;
    }

private:
    friend class Bytes;

    static constexpr std::size_t SMALL = 1 << 14;

    void giveBack(Memory memory)
    {
        const std::scoped_lock lock(m_mutex);
        m_kept.push_back(std::move(memory));
    }

    std::size_t m_most;
    std::mutex m_mutex;
    std::vector<Memory> m_kept;
};

inline std::size_t Bytes::room() const
{
    return m_pool ? m_pool->m_most : m_size;
}

inline Bytes::~Bytes()
{
    if (m_pool && m_memory) {
        m_pool->giveBack(std::move(m_memory));
    }
}

} // namespace kelvane::tool
