// A hash file in use, in offsets of the image.
#pragma once

#include <atomic>
#include <cstdint>
#include <kelvane/BlockHashStore.h>
#include <memory>
#include <string>
#include <vector>

#include "base/Range.h"
#include "hash_file/Digests.h"
#include "hash_file/Inspection.h"
#include "image/ImageReader.h"

namespace kelvane::tool {

// One store, for one thread. Failures name the hash file.
class Store {
public:
    enum class Access { Write, Read };

    // The path names the file in failures; `place` is where it is opened. `hasLostWrites` is set when what was changed
    // may not be on the disk, or a hash be there by half.
    Store(const std::string& path, const std::string& place, const Geometry& geometry, Access access,
          std::shared_ptr<std::atomic<bool>> hasLostWrites);

    std::int64_t blockSize() const { return m_geometry.blockSize; }

    // Of the whole blocks in a range, those whose hash is unknown. Reads no image, changes nothing.
    std::vector<Range> unknown(Range range);

    // The aggregate hash of a range, in bounded memory. Data that it still takes, of partial blocks for instance, is
    // read from the image and counted.
    Digest hash(Range range, const ImageReader& reader, std::atomic<std::int64_t>& bytesRead);

    // Of whole blocks that are known, those whose hash is not the data's; null is zeros.
    std::vector<Range> wrong(Range blocks, const char* data);

    // Whether these are the hashes of whole blocks that are known.
    bool has(Range blocks, const DigestBytes& digests);

    // These fail when the hash file can only be read. The ranges are of whole blocks; null is zeros.
    void update(Range blocks, const char* data);
    void store(Range blocks, const DigestBytes& digests);
    void invalidate(Range range);
    void sync();
    std::uint64_t discardTornEntries();

    // Makes a range unknown whose hashes may be wrong, as far as possible on the disk.
    void forget(Range range);

private:
    Digest hashWith(TargetSource& source, Range range);
    BlockHashStore& writable() const;
    std::int64_t onDevice(Range range) const { return m_geometry.partitionOffset + range.offset; }
    void forgetWhenFailing(Range range, const std::function<void()>& operation);

    std::string m_path;
    Geometry m_geometry;
    std::shared_ptr<std::atomic<bool>> m_hasLostWrites;
    std::unique_ptr<BlockHashStore> m_store; // one of these
    std::unique_ptr<HashFileInspector> m_inspector;
};

} // namespace kelvane::tool
