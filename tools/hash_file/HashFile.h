// The hash file of an image: its header, and stores on it that speak in offsets of the image.
#pragma once

#include <sys/stat.h>

#include <atomic>
#include <cstdint>
#include <kelvane/BlockHashStore.h>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/Range.h"
#include "image/Image.h"

namespace kelvane::tool {

// The record at the start of every hash file.
struct Header {
    std::uint64_t magicNumber;
    std::uint64_t version;
    std::uint64_t dataRegionOffset;
    std::uint32_t blockSize;
    std::uint64_t targetEnd; // where the target ends on its device
    std::uint64_t partitionOffset;
    std::uint32_t hashId;

    std::int64_t targetSize() const { return static_cast<std::int64_t>(targetEnd - partitionOffset); }
};

// One store, for one thread. Failures name the hash file.
class Store {
public:
    using Hash = BlockHashStore::HashValue;

    Store(const std::string& path, const Header& header);

    std::int64_t blockSize() const { return m_blockSize; }

    // Of the whole blocks in a range, those whose hash is unknown. Reads no image, changes nothing.
    std::vector<Range> unknown(Range range);

    // The aggregate hash of a range. Data that it still takes, of partial blocks for instance, is read from the
    // image and counted.
    Hash hash(Range range, const Image& image, std::atomic<std::int64_t>& bytesRead);

    // The hash of bytes in memory; nothing is stored.
    Hash hash(const void* buffer, std::size_t length) const;

    void update(Range range, char* data);
    void invalidate(Range range);
    void sync();
    std::uint64_t discardTornEntries();

private:
    template <class Operation>
    auto naming(Operation operation) const -> decltype(operation());
    void forget(Range range);

    std::string m_path;
    std::int64_t m_partitionOffset;
    std::int64_t m_blockSize;
    std::unique_ptr<BlockHashStore> m_store;
};

struct HashFileOptions {
    std::string path; // empty: the image's with ".hashes"
    std::optional<std::uint32_t> blockSize;
    std::optional<std::uint64_t> partitionOffset;

    std::string pathFor(const Image& image) const { return path.empty() ? image.path() + ".hashes" : path; }
};

// Open and locked against other runs of this program.
class HashFile {
public:
    static constexpr std::uint32_t DEFAULT_BLOCK_SIZE = 4096;

    // As it stands.
    explicit HashFile(std::string path);

    // For an image: made when it is missing, and adapted when the image has another size than it records. Notes on
    // standard error when the image is newer.
    static HashFile openOrCreate(const Image& image, const HashFileOptions& options);

    // For an image, as it stands; fails when it is missing or was made with other options than given.
    static HashFile openExisting(const Image& image, const HashFileOptions& options);

    const std::string& path() const { return m_path; }
    const Header& header() const { return m_header; }
    bool wasCreated() const { return m_created; }
    std::optional<std::int64_t> formerTargetSize() const { return m_formerTargetSize; } // when it was adapted

    Store& store() { return *m_store; }
    Store anotherStore() const { return Store(m_path, m_header); }

    // To be called when other stores have changed the file: a store does not notice.
    void reopenStore() { m_store = std::make_unique<Store>(m_path, m_header); }

    // From an offset in the image to one on the device, on which a partition starts at its own offset.
    std::int64_t onDevice(std::int64_t offset) const
    {
        return offset + static_cast<std::int64_t>(m_header.partitionOffset);
    }

    // Records another size of the target. What it gains is unknown, what it loses is forgotten, on the disk,
    // before `changeImage` is called.
    template <class ChangeImage>
    void resize(std::int64_t targetSize, ChangeImage changeImage)
    {
        forgetBehind(targetSize);
        changeImage();
        adapt(targetSize);
    }

    // The image may have been changed since, without the store: it is newer than the hash file.
    static bool isNewer(const Image& image, const std::string& hashFilePath);

    void setTimeToNow() const;

private:
    class Lock;

    void forgetBehind(std::int64_t targetSize);
    void adapt(std::int64_t targetSize);

    std::string m_path;
    std::shared_ptr<Lock> m_lock;
    Header m_header = {};
    std::unique_ptr<Store> m_store;
    bool m_created = false;
    std::optional<std::int64_t> m_formerTargetSize;
};

// What a hash file holds at this moment. It is only read and not locked, so it may be in use or not writable.
struct HashFileContents {
    explicit HashFileContents(const std::string& path);

    Header header;
    std::vector<Range> unknown; // of the whole blocks
    struct stat status = {};
};

} // namespace kelvane::tool
