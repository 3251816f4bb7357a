// The hash file of an image: found or made, locked against other runs, and its record.
#pragma once

#include <cstdint>
#include <kelvane/HashFunctionType.h>
#include <memory>
#include <optional>
#include <string>

#include "base/Range.h"
#include "hash_file/Evidence.h"
#include "hash_file/Inspection.h"
#include "hash_file/Store.h"
#include "image/Image.h"
#include "terminal/Progress.h"

namespace kelvane::tool {

struct HashFileOptions {
    std::string path; // empty: the image's with ".hashes"
    std::optional<std::uint32_t> blockSize;
    std::optional<std::uint64_t> partitionOffset;
    bool adopts = false;     // takes over one that was made for another image
    bool isReadOnly = false; // is neither made nor written

    std::string pathFor(const Image& image) const;
};

// Open and locked against other runs of this program.
class HashFile {
public:
    static constexpr std::uint32_t DEFAULT_BLOCK_SIZE = 4096;

    // For an image: made when it is missing, for a size. Whole before it has its name, whatever ends the program
    // meanwhile. Fails when it belongs to another image; it may still record another size of this one.
    static HashFile openOrCreate(const Image& image, const HashFileOptions& options, std::int64_t targetSize,
                                 ProgressMode mode);

    // For an image, as it stands; fails when it is missing or was made with other options than given.
    static HashFile openExisting(const Image& image, const HashFileOptions& options);

    const std::string& path() const { return m_path; }
    const Geometry& geometry() const { return m_geometry; }
    bool wasCreated() const { return m_created; }
    bool isWritable() const;

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

    // What was recorded when the file was opened.
    const std::optional<Evidence>& evidence() const { return m_evidence; }

    // Why the hashes may not be true of an image in this state; empty when the record says that they are.
    std::string doubtAbout(const ImageState& image) const;

    // Whether nothing else has changed the file, since it was opened or recorded, or put another one in its place. Once
    // this program has changed it, only the latter can be told, by `isInPlace`.
    bool isUntouched() const;
    bool isInPlace() const;

    // Records that the hashes are true of an image in this state, or that they may be true of none. Only notes on
    // standard error when that cannot be written: without it the next run checks the hashes.
    void record(const ImageState& image, bool isClean);

    // Whether the record is of this image, or there is none.
    bool isOf(const ImageState& image) const;

private:
    class Lock;

    HashFile(std::string path, std::shared_ptr<Lock> lock);

    static std::optional<HashFile> open(const std::string& path, const HashFileOptions& options);
    std::string place() const;
    static std::optional<HashFile> make(const std::string& path, const Geometry& geometry, ProgressMode mode);
    void checkOptions(const HashFileOptions& options) const;
    void checkOwner(const Image& image, const HashFileOptions& options);
    void checkAdaptable(std::int64_t targetSize) const;
    void forgetBehind(std::int64_t targetSize);
    void adapt(std::int64_t targetSize);

    std::string m_path;
    std::shared_ptr<Lock> m_lock;
    Geometry m_geometry;
    std::optional<Evidence> m_evidence;
    nlohmann::ordered_json m_state; // of the file, when it was opened or recorded
    std::unique_ptr<Store> m_store;
    bool m_created = false;
};

} // namespace kelvane::tool
