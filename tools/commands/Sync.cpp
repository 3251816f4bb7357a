#include <chrono>
#include <cstring>

#include "base/Failure.h"
#include "base/Interrupt.h"
#include "commands/Commands.h"
#include "terminal/Text.h"
#include "work/Compare.h"

namespace kelvane::tool {

namespace {

constexpr std::int64_t BATCH = 32 << 20; // bytes that are copied between two flushes, and kept in memory

// Copies ranges so that no crash leaves a hash of bytes that the destination does not hold: its hashes are
// forgotten on the disk before it is written, and stored after that is on the disk.
class Copier {
public:
    Copier(const Image& source, Image& destination, Store& store, Progress& progress)
        : m_source(source)
        , m_destination(destination)
        , m_store(store)
        , m_progress(progress)
        , m_buffer(static_cast<std::size_t>(std::max(BATCH, store.blockSize())))
    {
    }

    void copy(const std::vector<Range>& ranges)
    {
        const auto room = static_cast<std::int64_t>(m_buffer.size());
        const std::int64_t piece = roundDown(room, m_store.blockSize());
        for (Range rest : ranges) {
            while (rest.length > 0) {
                const Range next = between(rest.offset, std::min(rest.end(), rest.offset + piece));
                if (totalLength(m_batch) + next.length > room) {
                    flush();
                }
                m_batch.push_back(next);
                rest = between(next.end(), rest.end());
            }
        }
        flush();
    }

private:
    void flush()
    {
        throwWhenInterrupted();
        for (const Range& range : m_batch) {
            m_store.invalidate(range);
        }
        m_store.sync();
        char* data = m_buffer.data();
        for (const Range& range : m_batch) {
            m_source.read(data, range);
            m_destination.write(data, range);
            data += range.length;
        }
        m_destination.flush();
        data = m_buffer.data();
        for (const Range& range : m_batch) {
            m_store.update(range, data);
            data += range.length;
            m_progress.advance(range.length);
        }
        m_batch.clear();
    }

    const Image& m_source;
    Image& m_destination;
    Store& m_store;
    Progress& m_progress;
    std::vector<char> m_buffer;
    std::vector<Range> m_batch;
};

// Compares all bytes of two images of one size; the offset of the first piece that differs.
std::optional<std::int64_t> findDifference(const Image& first, const Image& second, ProgressMode mode)
{
    constexpr std::int64_t PIECE = 1 << 20;
    std::vector<char> left(PIECE);
    std::vector<char> right(PIECE);
    second.dropCache();
    Progress progress("verify", first.size(), mode);
    for (std::int64_t at = 0; at < first.size(); at += PIECE) {
        throwWhenInterrupted();
        const Range range = between(at, std::min(first.size(), at + PIECE));
        first.read(left.data(), range);
        second.read(right.data(), range);
        const auto end = left.begin() + range.length;
        const auto difference = std::mismatch(left.begin(), end, right.begin()).first;
        if (difference != end) {
            return at + (difference - left.begin());
        }
        progress.advance(range.length);
    }
    return std::nullopt;
}

} // namespace

Outcome sync(const PairArguments& arguments, bool reread, const Common& common)
{
    const auto start = std::chrono::steady_clock::now();
    const Image source(arguments.first.image, Image::Access::Read);
    Image destination(arguments.second.image, Image::Access::Create);
    if (destination.isBlockDevice() && destination.size() < source.size()) {
        throw Failure(destination.path(), destination.size(),
                      "the device is too small for an image of " + counted(source.size(), "byte"));
    }
    HashFilePair hashFiles(source, arguments.first.hashFile, destination, arguments.second.hashFile);
    const std::int64_t formerSize = destination.size();
    if (formerSize != source.size() && !destination.isBlockDevice()) {
        hashFiles.second.resize(source.size(), [&] {
            destination.resize(source.size());
            destination.flush();
        });
    }
    const Comparison found = compare({source, hashFiles.first}, {destination, hashFiles.second}, common);
    const std::int64_t copied = totalLength(found.differing);
    if (copied > 0) {
        Progress progress("copy", copied, common.progress);
        Copier(source, destination, hashFiles.second.store(), progress).copy(found.differing);
        hashFiles.second.store().sync();
    }
    std::optional<std::int64_t> difference;
    if (reread) {
        difference = findDifference(source, destination, common.progress);
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    Outcome outcome;
    outcome.good = !difference;
    outcome.text = counted(source.size(), "byte") + " compared by " + counted(found.comparisons, "comparison") + " and "
        + counted(found.bytesRead, "byte") + " of data read, " + counted(copied, "byte") + " copied in "
        + counted(static_cast<std::int64_t>(found.differing.size()), "range") + ", " + humanTime(seconds) + "\n";
    outcome.json = {{"equal", outcome.good},
                    {"bytesCompared", source.size()},
                    {"bytesCopied", copied},
                    {"ranges", found.differing.size()},
                    {"comparisons", found.comparisons},
                    {"bytesRead", found.bytesRead},
                    {"seconds", seconds},
                    {"verified", reread}};
    if (formerSize != destination.size()) {
        outcome.text += destination.path() + ": " + counted(formerSize, "byte") + " before\n";
        outcome.json["formerSize"] = formerSize;
    }
    if (difference) {
        outcome.text += "reread: " + destination.path() + " differs from " + source.path() + " at offset "
            + std::to_string(*difference) + "; see verify --mark\n";
        outcome.json["firstDifference"] = *difference;
    } else if (reread) {
        outcome.text += "reread: equal\n";
    }
    return outcome;
}

} // namespace kelvane::tool
