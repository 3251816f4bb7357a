// Writes data to an image so that no crash leaves a hash of bytes that are not there.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <future>
#include <memory>
#include <vector>

#include "base/Range.h"
#include "base/Reporter.h"
#include "image/Image.h"
#include "work/BlockDigests.h"
#include "work/HashedImage.h"
#include "work/Piece.h"

namespace kelvane::tool {

// Before a block is overwritten its hash is forgotten, on the disk; its new hash is stored once its data is on the
// disk. Nothing waits for a disk that can be waited for later.
class Writer {
public:
    // `isSparse`: zeros become holes; otherwise no hole is left in the end.
    Writer(Image& destination, HashedImage& hashed, bool isSparse, const Common& common);

    // That will be written: what is told before the first piece is forgotten at once, with one flush for all.
    void announce(const std::vector<Range>& ranges);

    // In ascending order.
    void write(const Piece& piece);

    // All is on the disk then, and the hashes are stored.
    OwnChange finish();

    // Instead of that, after a failure: what was written is kept.
    OwnChange stop();

private:
    struct Written {
        Range blocks;
        DigestBytes digests; // empty for zeros
    };

    // What is on its way to the disk, or will be.
    struct Batch {
        std::vector<Written> written;
        std::vector<Range> uncached; // was not in memory before
        std::int64_t bytes = 0;      // that were written
        std::size_t digestBytes = 0;
        std::chrono::steady_clock::time_point begin = std::chrono::steady_clock::now();
    };

    struct Dirty {
        Range window;
        std::int64_t bytes; // that were written there
    };

    bool forget(Range range);
    void put(const Piece& piece);
    void putZeros(Range range);
    void putData(Range range, const char* data, const std::shared_ptr<const void>& memory);
    void beginWindow(Range range);
    void fillHoles();
    void remember(Range blocks, const DigestBytes& digests);
    void flushWhenDue();
    void beginFlush();
    void endFlush();
    void awaitFlush();

    Image& m_destination;
    HashedImage& m_hashed;
    bool m_isSparse;
    const Common& m_common;
    ImageChange m_change;
    BlockDigests m_digests;
    bool m_hasForgotten = false; // what is not yet on the disk
    Range m_window = {};         // in which data comes now
    std::int64_t m_windowBytes = 0;
    bool m_isWindowUncached = false; // nothing of it was in memory
    std::deque<Dirty> m_dirty;       // what the disk was told to begin with, oldest first
    std::int64_t m_dirtyBytes = 0;
    Batch m_batch;
    Batch m_flushed;           // the one before
    std::future<void> m_flush; // of that
};

} // namespace kelvane::tool
