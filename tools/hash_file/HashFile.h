// The hash file of an image: found or made, locked against other runs, and its record.
#pragma once

#include <cstdint>
#include <kelvane/HashFunctionType.h>
#include <memory>
#include <optional>
#include <string>

#include "base/Range.h"
#include "base/Reporter.h"
#include "hash_file/Inspection.h"
#include "hash_file/Record.h"
#include "hash_file/Store.h"
#include "image/Image.h"

namespace kelvane::tool {

struct HashFileOptions {
    std::string path; // empty: the image's with ".hashes"
    std::optional<std::uint32_t> blockSize;
    std::optional<std::uint64_t> partitionOffset;
    bool adopts = false;     // takes over one that was made for another image
    bool isReadOnly = false; // is neither made nor written
    AtLink atLink = AtLink::Follow;

    std::string pathFor(const Image& image) const;
};

// Open and locked against other runs of this program. The reporter must outlive it.
class HashFile {
public:
    static constexpr std::uint32_t DEFAULT_BLOCK_SIZE = 4096;

    // Nothing when there is none. It may be another image's.
    static std::optional<HashFile> find(const Image& image, const HashFileOptions& options, Reporter& reporter);

    // What was found, or one that is made for a size. It is whole before it has its name, whatever ends the program
    // meanwhile. Fails when it was made with other options than given, or belongs to another image; it may still record
    // another size of this one.
    static HashFile foundOrMade(std::optional<HashFile> found, const Image& image, const HashFileOptions& options,
                                std::int64_t targetSize, Reporter& reporter);

    // The same for an image as it stands.
    static HashFile openOrMake(const Image& image, const HashFileOptions& options, Reporter& reporter);

    // Fails when there is none, or when it was made with other options than given.
    static HashFile openExisting(const Image& image, const HashFileOptions& options, Reporter& reporter);

    const std::string& path() const { return m_path; }
    const Geometry& geometry() const { return m_geometry; }
    bool wasMade() const { return m_wasMade; }
    bool isWritable() const;
    bool isServedReadOnly() const; // so that no record is written either

    Store& store() { return *m_store; }
    Store anotherStore() const { return anotherStore(isWritable() ? Store::Access::Write : Store::Access::Read); }
    Store anotherStore(Store::Access access) const;

    // To be called when other stores have changed the file: a store does not notice.
    void reopenStore();

    // From an offset in the image to one on the device, on which a partition starts at its own offset.
    std::int64_t onDevice(std::int64_t offset) const { return offset + m_geometry.partitionOffset; }

    // Records another size of the target. What it gains is unknown, what it loses is forgotten, on the disk,
    // before `changeImage` is called.
    template <class ChangeImage>
    void resize(std::int64_t targetSize, ChangeImage changeImage)
    {
        checkAdaptable(targetSize);
        forgetBehind(targetSize);
        changeImage();
        adapt(targetSize);
    }

    // What is recorded beside it.
    const std::optional<Record>& record() const { return m_record; }

    // Its state when it was opened, or recorded.
    const Traits& state() const { return m_state; }

    // Whether nothing else has changed the file, since it was opened or recorded, or put another one in its place. Once
    // this program has changed it, only the latter can be told, by `isInPlace`.
    bool isUntouched() const;
    bool isInPlace() const;

    // Replaces the record by one of an image. Only notes it when that cannot be done: without a record
    // the next run checks the hashes. Fails when the old one stands all the same, and says that they are true.
    void write(Record record);

    // Whether a change of its hashes may not have reached the disk, or done so by half.
    bool hasLostWrites() const { return *m_hasLostWrites; }

    // Forgets what the system holds of it in memory, as far as that can be done.
    void dropCache() const;

    // Removes it, with its record, unless something else has its name.
    void remove() const;

private:
    class Lock;

    HashFile(std::string path, std::shared_ptr<Lock> lock, bool wasMade, Reporter& reporter);

    static std::optional<HashFile> open(const std::string& path, const HashFileOptions& options, Reporter& reporter);
    static std::optional<HashFile> make(const std::string& path, const Geometry& geometry, Reporter& reporter);
    void checkOptions(const HashFileOptions& options) const;
    void checkOwner(const Image& image, const HashFileOptions& options);
    void checkMemory();
    void checkAdaptable(std::int64_t targetSize) const;
    void forgetBehind(std::int64_t targetSize);
    void adapt(std::int64_t targetSize);

    std::string m_path;
    std::shared_ptr<Lock> m_lock;
    Reporter* m_reporter;
    bool m_wasMade;
    std::optional<Record> m_record;
    Geometry m_geometry;
    Traits m_state;
    std::shared_ptr<std::atomic<bool>> m_hasLostWrites = std::make_shared<std::atomic<bool>>(false);
    std::unique_ptr<Store> m_store;
};

// The state of a hash file that is open, for its record.
Traits hashFileState(const Descriptor& file);

} // namespace kelvane::tool
