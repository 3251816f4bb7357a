#include "hash_file/Store.h"

#include <cerrno>

namespace kelvane::tool {

Store::Store(const std::string& path, const std::string& place, const Geometry& geometry, Access access)
    : m_path(path)
    , m_geometry(geometry)
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

Store::Hash Store::hash(Range range, const Image& image, std::atomic<std::int64_t>& bytesRead)
{
    const auto supply = [&](const std::vector<kelvane_off_t>& offsets, const std::vector<kelvane_off_t>& lengths) {
        std::vector<std::unique_ptr<char[]>> data;
        for (std::size_t i = 0; i < offsets.size(); ++i) {
            data.push_back(std::make_unique_for_overwrite<char[]>(static_cast<std::size_t>(lengths[i])));
            image.read(data.back().get(), {offsets[i] - m_geometry.partitionOffset, lengths[i]});
            bytesRead += lengths[i];
        }
        return data;
    };
    return explaining(m_path, [&] {
        return m_store ? m_store->get_hash(onDevice(range), range.length, supply)
                       : m_inspector->get_hash(onDevice(range), range.length, supply);
    });
}

void Store::update(Range range, char* data)
{
    forgetWhenFailing(range, [&] { writable().update_hashes(onDevice(range), data, range.length); });
}

void Store::zero(Range range)
{
    forgetWhenFailing(range, [&] { writable().zero_hashes(onDevice(range), range.length); });
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
    if (m_store) {
        try {
            m_store->invalidate_hashes(onDevice(range), range.length);
        } catch (const std::runtime_error&) {
            // The failure that came first is reported.
        }
        m_store->sync_to_disk();
    }
}

void Store::invalidate(Range range)
{
    constexpr std::int64_t BLOCKS_AT_ONCE = 1 << 18; // bounds the memory
    for (const std::int64_t step = BLOCKS_AT_ONCE * m_geometry.blockSize; range.length > 0;) {
        const Range piece
            = between(range.offset, std::min(range.end(), roundDown(range.offset, m_geometry.blockSize) + step));
        explaining(m_path, [&] { writable().invalidate_hashes(onDevice(piece), piece.length); });
        range = between(piece.end(), range.end());
    }
}

void Store::sync()
{
    if (m_store && !m_store->sync_to_disk()) {
        throw FlushFailed(m_path, "cannot flush: " + errorText(errno));
    }
}

std::uint64_t Store::discardTornEntries()
{
    return explaining(m_path, [&] { return writable().discard_torn_entries(); });
}

} // namespace kelvane::tool
