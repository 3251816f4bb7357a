#include "hash_file/Store.h"

#include <algorithm>
#include <cerrno>
#include <kelvane/TargetSource.h>
#include <span>
#include <utility>

#include "base/Bytes.h"
#include "base/Interrupt.h"

namespace kelvane::tool {

Store::Store(const std::string& path, const std::string& place, const Geometry& geometry, Access access,
             std::shared_ptr<std::atomic<bool>> hasLostWrites)
    : m_path(path)
    , m_geometry(geometry)
    , m_hasLostWrites(std::move(hasLostWrites))
{
    explaining(path, [&] {
        if (access == Access::Write) {
            m_store = BlockHashStore::open(place, geometry.targetEnd());
        } else {
            m_inspector = std::make_unique<HashFileInspector>(place);
        }
    });
}

BlockHashStore& Store::writable() const
{
    if (!m_store) {
        throw Failure(m_path, "hashes have to be stored, but the hash file cannot be written");
    }
    return *m_store;
}

std::vector<Range> Store::unknown(Range range)
{
    return explaining(m_path, [&] {
        return m_store ? unknownRanges(*m_store, m_geometry, range) : unknownRanges(*m_inspector, m_geometry, range);
    });
}

namespace {

// Reads what is asked for.
class ReadingSource : public TargetSource {
public:
    ReadingSource(const ImageReader& reader, std::int64_t start, std::atomic<std::int64_t>& bytesRead)
        : m_reader(reader)
        , m_start(start)
        , m_bytesRead(bytesRead)
    {
    }

    LentData lend(kelvane_off_t offset, kelvane_buf_len_t length) override
    {
        constexpr std::int64_t AT_ONCE = 1 << 20;
        const Range range = {offset - m_start, std::min(length, AT_ONCE)};
        m_copy = m_reader.copy(range);
        m_bytesRead += range.length;
        return {m_copy.data, range.length};
    }

private:
    const ImageReader& m_reader;
    std::int64_t m_start; // of the image on its device
    std::atomic<std::int64_t>& m_bytesRead;
    ImageReader::Copy m_copy;
};

// Lends what is at hand.
class DataSource : public TargetSource {
public:
    DataSource(kelvane_off_t offset, const char* data)
        : m_offset(offset)
        , m_data(data)
    {
    }

    LentData lend(kelvane_off_t offset, kelvane_buf_len_t length) override
    {
        return m_data == nullptr ? LentData::zeros(length) : LentData(m_data + (offset - m_offset), length);
    }

private:
    kelvane_off_t m_offset;
    const char* m_data;
};

} // namespace

Digest Store::hash(Range range, const ImageReader& reader, std::atomic<std::int64_t>& bytesRead)
{
    ReadingSource source(reader, m_geometry.partitionOffset, bytesRead);
    return hashWith(source, range);
}

Digest Store::hashWith(TargetSource& source, Range range)
{
    const auto stopping = [](kelvane_buf_len_t /*done*/) {
        throwWhenInterrupted();
        return true;
    };
    return explaining(m_path, [&] {
        return m_store ? m_store->hash_range(onDevice(range), range.length, source, stopping)
                       : m_inspector->hash_range(onDevice(range), range.length, source, stopping);
    });
}

std::vector<Range> Store::wrong(Range blocks, const char* data)
{
    std::vector<Range> found;
    DataSource source(onDevice(blocks), data);
    const auto onWrong = [&](kelvane_off_t offset, kelvane_buf_len_t length) {
        append(found, {offset - m_geometry.partitionOffset, length});
    };
    explaining(m_path, [&] {
        return m_store ? m_store->find_wrong_hashes(onDevice(blocks), blocks.length, source, onWrong)
                       : m_inspector->find_wrong_hashes(onDevice(blocks), blocks.length, source, onWrong);
    });
    return found;
}

bool Store::has(Range blocks, const DigestBytes& digests)
{
    DataSource unused(onDevice(blocks), nullptr);
    return digests.empty() ? wrong(blocks, nullptr).empty() : hashWith(unused, blocks) == digestOfDigests(digests);
}

void Store::update(Range blocks, const char* data)
{
    forgetWhenFailing(blocks, [&] {
        if (data == nullptr) {
            writable().store_hashes_of_zeros(onDevice(blocks), blocks.length);
        } else {
            writable().update_hashes(onDevice(blocks),
                                     std::as_bytes(std::span(data, static_cast<std::size_t>(blocks.length))));
        }
    });
}

void Store::store(Range blocks, const DigestBytes& digests)
{
    if (digests.empty()) {
        return update(blocks, nullptr);
    }
    forgetWhenFailing(blocks, [&] { writable().store_hashes(onDevice(blocks), blocks.length, digests.data()); });
}

// A write that was cut short can leave a hash by half.
void Store::forgetWhenFailing(Range range, const std::function<void()>& operation)
{
    try {
        explaining(m_path, operation);
    } catch (const Failure&) {
        forget(range);
        throw;
    }
}

void Store::forget(Range range)
{
    if (!m_store) {
        return;
    }
    try {
        m_store->invalidate_hashes(onDevice(range), range.length);
    } catch (const std::runtime_error&) { // the failure that came first is reported
        *m_hasLostWrites = true;
    }
    if (!m_store->sync_to_disk()) {
        *m_hasLostWrites = true;
    }
}

void Store::invalidate(Range range)
{
    constexpr std::int64_t BLOCKS_AT_ONCE = 1 << 18; // bounds the memory
    const std::int64_t step = BLOCKS_AT_ONCE * m_geometry.blockSize;
    while (range.length > 0) {
        const Range next = takeFirst(range, step - range.offset % m_geometry.blockSize);
        explaining(m_path, [&] { writable().invalidate_hashes(onDevice(next), next.length); });
    }
}

void Store::sync()
{
    if (m_store && !m_store->sync_to_disk()) {
        *m_hasLostWrites = true;
        throw FlushFailed(m_path, "cannot flush: " + errorText(errno));
    }
}

std::uint64_t Store::discardTornEntries()
{
    return explaining(m_path, [&] { return writable().discard_torn_entries(); });
}

} // namespace kelvane::tool
