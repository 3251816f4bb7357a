// The disk images that the program works on: regular files and block devices.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/Descriptor.h"
#include "base/Failure.h"
#include "base/Range.h"
#include "image/BlockDevice.h"

namespace kelvane::tool {

// The system could not write to the disk what it had taken. What it holds in memory may never reach the disk, though
// the next flush succeeds.
class FlushFailed : public Failure {
public:
    using Failure::Failure;
};

// Is read alone until `beginWriting`. May be read by several threads at once. Every failure is a Failure that names the
// image and the offset.
class Image {
public:
    enum class Access { Read, Write, WriteOrMissing };

    // With WriteOrMissing, one that is not there counts as empty until `create` is called. What is to be written must
    // not be in use by the system, by being mounted for instance.
    Image(std::string path, Access access, AtLink atLink = AtLink::Follow);

    const std::string& path() const { return m_path; }
    std::int64_t size() const { return m_size; }
    bool isBlockDevice() const { return m_isBlockDevice; }
    bool isMissing() const { return !m_file; }
    mode_t permissions() const { return m_permissions; }
    const Descriptor& file() const { return m_file; }

    // Of a block device: whether nobody else uses it as a whole, as the system does with one that is mounted.
    bool isClaimed() const { return m_isClaimed; }
    const BlockDevice& device() const { return *m_device; }

    // The file that holds its bytes: itself; of a loop device that can only be read, the one that it shows. None where
    // that file can be written through the device, or is not to be seen.
    const Descriptor& fileWithBytes() const { return m_isBlockDevice ? m_shown : m_file; }

    // `size` is that of the time of opening, or of the last resizing by this program.
    std::int64_t currentSize() const;

    // Whether another one is the same file or device, by whatever path.
    bool isSame(const Image& other) const
    {
        return !isMissing() && !other.isMissing() && leadsTo(other.m_file.place(), m_file);
    }

    // Whether its path still leads to it.
    bool isNamed() const { return leadsTo(m_path, m_file); }

    // Whether every change of it leaves a stamp of this machine's clock once it is flushed, those by mappings, too, and
    // what is mapped is what is read. Not where the file system is not known to work so: in memory, over a network, in
    // user space, or put together from several others.
    bool isStamped() const { return m_isStamped; }

    // A block device is read from the disk: what the system holds in memory of it is not always what was written to it
    // past it, to the whole disk or to the file that holds it.
    void read(char* buffer, Range range) const;

    // From the disk, past what the system holds in memory and without leaving anything there; as `read` does where that
    // cannot be done.
    void readFromDisk(char* buffer, Range range) const;

    // Whether any page of a range is in memory, while the image is written, too; true where that cannot be told.
    bool isAnyInMemory(Range range) const;

    // Whether all pages of a range are in memory; which of them are. All of them where that cannot be told, or where
    // nothing can be read past it.
    struct Run {
        Range range;
        bool isInMemory;
    };
    bool isInMemory(Range range) const;
    std::vector<Run> residency(Range range) const;

    // The first range of data at or behind an offset and before `end`; what lies before it is a hole. Empty,
    // at `end`, when there is only a hole.
    Range nextData(std::int64_t offset, std::int64_t end) const;

    // Brings what the system holds in memory to the disk. After a FlushFailed that is dropped from memory, as far as
    // possible.
    void flush() const;

    // What is read from now on comes from the disk. False when a part of it stays in memory; `mustDropCache` then
    // fails.
    bool dropCache() const;
    void mustDropCache() const;

    // Drops a range from memory, once it is on the disk.
    void drop(Range range) const;

    // Fails when the image, or one that is made, could not have a size.
    void checkSize(std::int64_t size) const;

    void create(mode_t permissions); // which begins writing
    void beginWriting();
    bool isWriting() const { return m_isWriting; }
    void endWriting();
    void write(const char* buffer, Range range);
    void resize(std::int64_t size); // regular files alone

    // Has the system write a range to the disk at once; waits until that has happened, and fails as `flush` does. Only
    // a flush makes it durable.
    void beginWriteBack(Range range) const;
    void awaitWriteBack(Range range) const;

    // Whether a FlushFailed was thrown: what was written may be nowhere.
    bool hasLostWrites() const { return *m_hasLostWrites; }
    bool punch(Range range); // into zeros that take no room; false where that cannot be done

    // By this program.
    std::int64_t bytesWritten() const { return m_bytesWritten; }

private:
    void checkDirectory() const;
    void openForReading(const Descriptor& found);
    void take(Descriptor file, const struct stat& status);
    void refuseUse() const;
    const Descriptor& fileForDisk() const { return m_isBlockDevice ? m_file : m_direct; }
    void openForDisk();
    [[noreturn]] void failFlush(int error) const;
    std::int64_t readAt(const Descriptor& file, char* buffer, Range range) const;
    void writeAt(const Descriptor& file, const char* buffer, Range range);
    void writeToDevice(const char* buffer, Range range);

    std::string m_path;
    Descriptor m_file;
    Descriptor m_direct; // a file again, to be read past what is in memory of it; none while it is written
    std::optional<BlockDevice> m_device;
    Descriptor m_shown;   // by a loop device
    Descriptor m_written; // a device, beside m_file, which claims it
    std::int64_t m_size = 0;
    mode_t m_permissions = 0;
    bool m_isBlockDevice = false;
    bool m_isClaimed = false;
    bool m_isStamped = false;
    bool m_isWriting = false;
    std::int64_t m_bytesWritten = 0;
    std::unique_ptr<std::atomic<bool>> m_hasLostWrites = std::make_unique<std::atomic<bool>>(false);
};

} // namespace kelvane::tool
