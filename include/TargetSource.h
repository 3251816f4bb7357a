// Target data that is lent to an operation piece by piece, as views.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#if __cplusplus >= 202002L
#include <span>
#endif

#include "Protocol.h"
#include "Types.h"

namespace kelvane {

// A stretch of target data: bytes in the lender's memory, or zeros, which need no memory at all.
class LentData {
public:
    // The `length` bytes at `bytes`, which stay the lender's.
    LentData(const void* bytes, kelvane_buf_len_t length)
        : m_bytes(static_cast<const char*>(bytes))
        , m_length(length)
    {
    }

#if __cplusplus >= 202002L
    // The same, as a span.
    LentData(std::span<const std::byte> bytes)
        : LentData(bytes.data(), static_cast<kelvane_buf_len_t>(bytes.size()))
    {
    }
#endif

    // So many bytes that are all zero, as a hole of a file has them. They cost entries alone: nothing is looked at.
    static LentData zeros(kelvane_buf_len_t length)
    {
        LentData data(nullptr, length);
        data.m_areZeros = true;
        return data;
    }

    // The first byte, in the lender's memory; null for zeros.
    const char* bytes() const
    {
        return m_bytes;
    }
    // In bytes, for zeros too.
    kelvane_buf_len_t length() const
    {
        return m_length;
    }
    // Whether it is zeros without memory; bytes that happen to be zero are not.
    bool areZeros() const
    {
        return m_areZeros;
    }

private:
    const char* m_bytes;
    kelvane_buf_len_t m_length;
    bool m_areZeros = false;
};

// Lends an operation the data that it needs. An operation asks on its own thread, for ascending and disjoint stretches,
// and for no byte twice. A source must not use the store that asks it. What it throws ends the operation and passes
// through.
class TargetSource {
public:
    virtual ~TargetSource() = default;

    // Lends what stands in the target from the external offset `offset` on: as much as it likes, but at least one
    // byte, and at most the `length` that are wanted there. The rest is asked for next. Whole blocks are hashed where
    // they lie, others are copied. The view must stay there, unchanged, until `returned` is called or, if it never
    // is, until the operation ends.
    virtual LentData lend(kelvane_off_t offset, kelvane_buf_len_t length) = 0;

    // The view that was lent last is hashed, and nothing of it stored or told yet. The place to find that the data was
    // not there all the time, for its disk failed or its file was cut short, and to throw.
    virtual void returned() { }
};

// A stretch of a target that lies in memory, where it must stay: for instance a mapping.
class MemorySource : public TargetSource {
public:
    // The `length` bytes at `bytes` are those of the target from the external offset `offset` on.
    MemorySource(kelvane_off_t offset, const void* bytes, kelvane_buf_len_t length)
        : m_offset(offset)
        , m_bytes(static_cast<const char*>(bytes))
        , m_length(length)
    {
    }

#if __cplusplus >= 202002L
    // The same, as a span.
    MemorySource(kelvane_off_t offset, std::span<const std::byte> bytes)
        : MemorySource(offset, bytes.data(), static_cast<kelvane_buf_len_t>(bytes.size()))
    {
    }
#endif

    // Lends all that is wanted. Throws std::runtime_error with "the target is not in memory at " and an offset when
    // something else is wanted than what is there.
    LentData lend(kelvane_off_t offset, kelvane_buf_len_t length) override
    {
        if (offset < m_offset || offset - m_offset > m_length || length > m_length - (offset - m_offset)) {
            throw std::runtime_error("the target is not in memory at " + std::to_string(offset));
        }
        return {m_bytes + (offset - m_offset), length};
    }

private:
    kelvane_off_t m_offset;
    const char* m_bytes;
    kelvane_buf_len_t m_length;
};

} // namespace kelvane
