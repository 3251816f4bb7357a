// The safe order of a write to a target whose hashes are kept.
#pragma once

#include <cerrno>
#include <exception>
#include <stdexcept>
#include <string>

#include "BlockHashStore.h"

namespace kelvane {

// Surrounds one write to the target, so that no crash can leave a hash marked as known for bytes that the
// target does not hold, provided that BlockHashStore::discard_torn_entries follows a crash of the machine or
// of the process:
//
//     TargetWriteGuard guard(store, offset, length); // the range is unknown, on the disk
//     ... write `buffer` to the target, and flush the target ...
//     guard.commit(buffer);                          // the range has its new hashes
//
// Destroyed without commit, after a failed write for instance, the range stays unknown until its hash is next
// asked for; before that, what the target holds must be on stable storage. The guard refers to the store, which
// must outlive it and may be used in between, but must not be asked for a hash that takes in a block which the
// range touches: that would store the block's hash before the write is complete. For many writes at once
// it is cheaper to invalidate all ranges, sync once, write and flush, and then update all; no two of them
// may touch the same block.
//
// A flush of the target that fails may lose what was written, which memory goes on showing, and the next flush succeeds
// without it. So a flush is no reason to commit when an earlier one failed after the bytes were written: write them
// again and flush, or leave the range unknown, and have it hashed only after the target was dropped from the system's
// memory (posix_fadvise with POSIX_FADV_DONTNEED) and read again.
class TargetWriteGuard {
public:
    // Makes the blocks that the range touches unknown and waits until that is on the disk. `offset` and
    // `length` are those of BlockHashStore::invalidate_hashes, whose failures it shares; further
    //   "failed to sync hash file: " and `errno`
    //   "cannot guard a target write while an exception propagates", for then the store could not report
    //   its failures; nothing is changed.
    // After any failure the target must not be written: on the disk, the old hashes may be known still. Another guard
    // of the range, of all its blocks at least, may be made; it writes all that once more.
    TargetWriteGuard(BlockHashStore& store, kelvane_off_t offset, kelvane_buf_len_t length)
        : m_store(store)
        , m_offset(offset)
        , m_length(length)
    {
        if (std::uncaught_exceptions() != 0) {
            throw std::runtime_error("cannot guard a target write while an exception propagates");
        }
        m_store.invalidate_hashes(offset, length);
        if (!m_store.sync_to_disk()) {
            const int error = errno;
            throw std::runtime_error("failed to sync hash file: " + std::to_string(error));
        }
    }

    TargetWriteGuard(const TargetWriteGuard&) = delete;
    TargetWriteGuard& operator=(const TargetWriteGuard&) = delete;

    // Stores the hashes of the blocks that the range covers wholly; `buffer` holds the range's bytes as
    // they now stand in the target, on stable storage, written since the last flush that failed. At most once per
    // guard. Fails as BlockHashStore::update_hashes does. A write of entries that was cut short can leave one that is
    // marked as known with only a part of its hash, so the range is then made unknown again, and that is synced, both
    // as far as possible. Where the hash file takes no write at all, nothing has changed. Further
    //   "cannot commit a target write while an exception propagates"; the range stays unknown.
    // The hashes reach the disk in their own time: losing them costs a rehash.
    void commit(const void* buffer)
    {
        if (std::uncaught_exceptions() != 0) {
            throw std::runtime_error("cannot commit a target write while an exception propagates");
        }
        try {
            m_store.update_hashes(m_offset, const_cast<kelvane_buf_t>(buffer), m_length); // which only reads it
        } catch (...) {
            makeUnknownAgain();
            throw;
        }
    }

#if __cplusplus >= 202002L
    // The same; fails before anything is changed with "the buffer of a target write has N bytes, not M" when it is not
    // as long as the range.
    void commit(std::span<const std::byte> buffer)
    {
        if (static_cast<kelvane_buf_len_t>(buffer.size()) != m_length) {
            throw std::runtime_error("the buffer of a target write has " + std::to_string(buffer.size())
                                     + " bytes, not " + std::to_string(m_length));
        }
        commit(buffer.data());
    }
#endif

private:
    void makeUnknownAgain()
    {
        try {
            m_store.invalidate_hashes(m_offset, m_length);
        } catch (...) {
            // The caller learns of the failure that came first.
        }
        static_cast<void>(m_store.sync_to_disk()); // also of an invalidation that got only so far
    }

    BlockHashStore& m_store;
    kelvane_off_t m_offset;
    kelvane_buf_len_t m_length;
};

} // namespace kelvane
