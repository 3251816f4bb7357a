#include "work/Blocks.h"

#include <algorithm>
#include <atomic>
#include <deque>
#include <exception>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "base/Interrupt.h"
#include "image/MappedData.h"

namespace kelvane::tool {

namespace {

constexpr std::int64_t SLICE = 16 << 20;
constexpr std::int64_t HOLE = std::int64_t {1} << 46;
constexpr std::int64_t PIECE = 8 << 20; // so that entries are written many at once

struct Run {
    Range range;
    bool isKnown;
};

std::int64_t inBlocks(std::int64_t size, std::int64_t blockSize)
{
    return std::max(blockSize, roundDown(size, blockSize));
}

std::deque<Run> chosen(Store& store, Range slice, Which which)
{
    std::deque<Run> runs;
    const auto add = [&](Range range, bool isKnown) {
        if (range.length > 0 && which != (isKnown ? Which::Unknown : Which::Known)) {
            runs.push_back({range, isKnown});
        }
    };
    Range rest = wholeBlocks(slice, store.blockSize());
    for (const Range& unknown : store.unknown(slice)) {
        add(between(rest.offset, unknown.offset), true);
        add(unknown, false);
        rest = between(unknown.end(), rest.end());
    }
    add(rest, true);
    return runs;
}

// Cuts slices into pieces of data or of holes.
class Planner {
public:
    Planner(Store& store, const Image& image, RangeSource& source, Which which, std::int64_t pieceSize)
        : m_store(store)
        , m_image(image)
        , m_source(source)
        , m_which(which)
        , m_pieceSize(pieceSize)
        , m_holeSize(holeSliceSize(store.blockSize()))
    {
    }

    // False at the end.
    bool next(Piece& piece)
    {
        while (m_runs.empty()) {
            const std::optional<Range> slice = m_source.next();
            if (!slice) {
                return false;
            }
            m_runs = chosen(m_store, *slice, m_which);
            m_left += slice->length;
            for (const Run& run : m_runs) {
                m_left -= run.range.length;
            }
        }
        piece.isKnown = m_runs.front().isKnown;
        Range& run = m_runs.front().range;
        const std::int64_t blockSize = m_store.blockSize();
        if (m_data.end() <= run.offset) {
            const Range data = m_image.nextData(run.offset, run.end());
            m_data = between(roundDown(data.offset, blockSize), std::min(run.end(), roundUp(data.end(), blockSize)));
        }
        piece.isHole = run.offset < m_data.offset;
        const std::int64_t end = piece.isHole ? m_data.offset : std::min(run.end(), m_data.end());
        piece.range = between(run.offset, std::min(end, run.offset + (piece.isHole ? m_holeSize : m_pieceSize)));
        run = between(piece.range.end(), run.end());
        if (run.length == 0) {
            m_runs.pop_front();
            m_data = {};
        }
        return true;
    }

    Which which() const { return m_which; }

    std::int64_t takeLeft() { return std::exchange(m_left, 0); }

private:
    Store& m_store;
    const Image& m_image;
    RangeSource& m_source;
    Which m_which;
    std::int64_t m_pieceSize;
    std::int64_t m_holeSize;
    std::deque<Run> m_runs;
    Range m_data = {}; // the stretch of data that the current run is in or comes to next
    std::int64_t m_left = 0;
};

void workOn(Store& store, const Image& image, const Piece& piece, Which which, const Work& work)
{
    if (piece.isHole) {
        work(store, piece, nullptr);
        return;
    }
    const MappedData data(image, piece.range);
    work(store, piece, data.get());
    if (!data.isWhole()) {
        if (which != Which::Known) { // with which nothing is stored
            store.forget(piece.range);
        }
        data.fail();
    }
}

Traffic workThrough(Store& store, const Image& image, Planner planner, Phase& phase, const Work& work,
                    const std::atomic<bool>& stop)
{
    Traffic traffic;
    Piece piece;
    for (bool more = true; more && !stop;) {
        throwWhenInterrupted();
        more = planner.next(piece);
        const std::int64_t left = planner.takeLeft();
        traffic.left += left;
        phase.skip(left);
        if (more) {
            workOn(store, image, piece, planner.which(), work);
            (piece.isHole ? traffic.holes : traffic.read) += piece.range.length;
            phase.advance(piece.range.length);
        }
    }
    return traffic;
}

} // namespace

std::int64_t sliceSize(std::int64_t blockSize)
{
    return inBlocks(SLICE, blockSize);
}

std::int64_t holeSliceSize(std::int64_t blockSize)
{
    constexpr std::int64_t BLOCKS = 1 << 16; // bounds the memory for their digests
    return std::max(sliceSize(blockSize), BLOCKS <= HOLE / blockSize ? BLOCKS * blockSize : inBlocks(HOLE, blockSize));
}

Traffic forBlocks(HashFile& hashFile, const Image& image, RangeSource& source, Which which, unsigned jobsWanted,
                  Phase& phase, const Work& work)
{
    std::atomic<bool> stop = false;
    const unsigned jobs = jobsWanted > 0 ? jobsWanted : std::max(1U, std::thread::hardware_concurrency());
    const std::int64_t pieceSize = inBlocks(PIECE, hashFile.store().blockSize());
    if (jobs <= 1) {
        Store& store = hashFile.store();
        return workThrough(store, image, {store, image, source, which, pieceSize}, phase, work, stop);
    }
    std::mutex mutex;
    std::exception_ptr failure;
    Traffic traffic;
    const auto job = [&] {
        try {
            Store store = hashFile.anotherStore();
            const Traffic own = workThrough(store, image, {store, image, source, which, pieceSize}, phase, work, stop);
            const std::scoped_lock lock(mutex);
            traffic.read += own.read;
            traffic.holes += own.holes;
            traffic.left += own.left;
        } catch (...) {
            const std::scoped_lock lock(mutex);
            failure = failure ? failure : std::current_exception();
            stop = true;
        }
    };
    {
        std::vector<std::jthread> threads;
        for (unsigned i = 0; i < jobs; ++i) {
            threads.emplace_back(job);
        }
    }
    hashFile.reopenStore();
    if (failure) {
        std::rethrow_exception(failure);
    }
    return traffic;
}

} // namespace kelvane::tool
