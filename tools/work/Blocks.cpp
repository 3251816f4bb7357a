#include "work/Blocks.h"

#include <algorithm>
#include <atomic>
#include <deque>
#include <exception>
#include <mutex>
#include <semaphore>
#include <thread>
#include <utility>
#include <vector>

#include "base/Failure.h"
#include "base/Interrupt.h"

namespace kelvane::tool {

namespace {

constexpr std::int64_t SLICE = 16 << 20;
constexpr std::int64_t HOLE = std::int64_t {1} << 46;
constexpr std::int64_t AT_ONCE = 8 << 20; // so that entries are written many at once

std::int64_t inBlocks(std::int64_t size, std::int64_t blockSize)
{
    return std::max(blockSize, roundDown(size, blockSize));
}

std::deque<Blocks> chosen(Store& store, Range slice, Which which)
{
    std::deque<Blocks> chosen;
    const auto add = [&](Range range, bool isKnown) {
        if (range.length > 0 && which != (isKnown ? Which::Unknown : Which::Known)) {
            chosen.push_back({range, isKnown, false});
        }
    };
    Range rest = wholeBlocks(slice, store.blockSize());
    for (const Range& unknown : store.unknown(slice)) {
        add(between(rest.offset, unknown.offset), true);
        add(unknown, false);
        rest = between(unknown.end(), rest.end());
    }
    add(rest, true);
    return chosen;
}

// Finds in slices what is to be done, and tells data from holes.
class Planner {
public:
    Planner(Store& store, const Image& image, Slices& slices, Which which)
        : m_store(store)
        , m_image(image)
        , m_slices(slices)
        , m_which(which)
        , m_longest(inBlocks(AT_ONCE, store.blockSize()))
        , m_longestHole(holeSliceSize(store.blockSize()))
    {
    }

    // Nothing at the end.
    std::optional<Blocks> next()
    {
        while (m_chosen.empty()) {
            const std::optional<Range> slice = m_slices.next();
            if (!slice) {
                return std::nullopt;
            }
            m_chosen = chosen(m_store, *slice, m_which);
            m_left += slice->length;
            for (const Blocks& each : m_chosen) {
                m_left -= each.range.length;
            }
        }
        Blocks next = m_chosen.front();
        Range& rest = m_chosen.front().range;
        findData(rest);
        next.isHole = rest.offset < m_data.offset;
        const std::int64_t end = next.isHole ? m_data.offset : std::min(rest.end(), m_data.end());
        next.range = between(rest.offset, std::min(end, rest.offset + (next.isHole ? m_longestHole : m_longest)));
        rest = between(next.range.end(), rest.end());
        if (rest.length == 0) {
            m_chosen.pop_front();
            m_data = {};
        }
        return next;
    }

    Which which() const { return m_which; }

    std::int64_t takeLeft() { return std::exchange(m_left, 0); }

private:
    void findData(Range rest)
    {
        if (m_data.end() <= rest.offset) {
            const std::int64_t blockSize = m_store.blockSize();
            const Range data = m_image.nextData(rest.offset, rest.end());
            m_data = between(roundDown(data.offset, blockSize), std::min(rest.end(), roundUp(data.end(), blockSize)));
        }
    }

    Store& m_store;
    const Image& m_image;
    Slices& m_slices;
    Which m_which;
    std::int64_t m_longest;
    std::int64_t m_longestHole;
    std::deque<Blocks> m_chosen;
    Range m_data = {}; // in which the first of these begin, or to which they come next
    std::int64_t m_left = 0;
};

using Jobs = std::counting_semaphore<>;

class OneJob {
public:
    explicit OneJob(Jobs& jobs)
        : m_jobs(jobs)
    {
        m_jobs.acquire();
    }
    ~OneJob() { m_jobs.release(); }
    OneJob(const OneJob&) = delete;
    OneJob& operator=(const OneJob&) = delete;

private:
    Jobs& m_jobs;
};

void workOn(Store& store, const ImageReader& reader, const Blocks& blocks, Which which, Jobs& jobs, const Work& work)
{
    if (blocks.isHole) {
        const OneJob job(jobs);
        work(store, blocks, nullptr);
        return;
    }
    const ImageData data(reader, blocks.range);
    {
        const OneJob job(jobs);
        work(store, blocks, data.get());
    }
    try {
        data.check();
    } catch (const Failure&) {
        if (which != Which::Known) { // with which nothing is stored
            store.forget(blocks.range);
        }
        throw;
    }
}

Traffic workThrough(Store& store, const ImageReader& reader, Planner planner, Jobs& jobs, Phase& phase,
                    const Work& work, const std::atomic<bool>& stop)
{
    Traffic traffic;
    for (bool isMore = true; isMore && !stop;) {
        throwWhenInterrupted();
        const std::optional<Blocks> blocks = planner.next();
        isMore = blocks.has_value();
        const std::int64_t left = planner.takeLeft();
        traffic.left += left;
        phase.skip(left);
        if (blocks) {
            workOn(store, reader, *blocks, planner.which(), jobs, work);
            (blocks->isHole ? traffic.holes : traffic.read) += blocks->range.length;
            phase.advance(blocks->range.length);
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

Traffic forBlocks(HashFile& hashFile, const ImageReader& reader, Slices& slices, Which which, unsigned jobs,
                  Phase& phase, const Work& work)
{
    std::atomic<bool> stop = false;
    std::mutex mutex;
    std::exception_ptr failure;
    Traffic traffic;
    Jobs free(jobs);
    const auto job = [&] {
        try {
            Store store = hashFile.anotherStore();
            const Traffic own
                = workThrough(store, reader, {store, reader.image(), slices, which}, free, phase, work, stop);
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
        for (unsigned i = 0; i < jobs + 1; ++i) {
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
