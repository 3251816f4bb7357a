// Images that the system opens by a path: regular files and block devices.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "image/BlockDevice.h"
#include "image/Image.h"

namespace kelvane::tool {

class FileImage final : public Image {
public:
    // With WriteOrMissing, one that is not there counts as empty until `create` is called. What is to be written must
    // not be in use by the system, by being mounted for instance.
    FileImage(std::string path, Access access, AtLink atLink = AtLink::Follow);

    const Descriptor& file() const { return m_file; }

    const std::string& path() const override { return m_path; }
    std::int64_t size() const override { return m_size; }
    std::int64_t currentSize() const override;
    bool hasFixedSize() const override { return m_device.has_value(); }
    bool isMissing() const override { return !m_file; }
    mode_t permissions() const override { return m_permissions; }
    std::string hashFile() const override;
    std::string place() const override { return m_file ? m_file.place() : ""; }
    bool isAt(const std::string& place) const override { return leadsTo(place, m_file); }

    Identity identity() const override;

    // Flushes the image. Waits until the clock has left the moment of the last change behind, for another change within
    // that moment would have the same stamp, and until nothing is on its way to a device.
    ImageState state() const override;
    Writers writers() const override;
    std::unique_ptr<Watch> watch() const override;

    // A block device is read from the disk: what the system holds in memory of it is not always what was written to it
    // past it, to the whole disk or to the file that holds it.
    void read(char* buffer, Range range) const override;
    Range nextData(std::int64_t offset, std::int64_t end) const override;
    std::vector<Range> changedRanges() const override { throw Failure(m_path, "has no bitmap of what has changed"); }
    void readFromDisk(char* buffer, Range range) const override;
    bool isAnyInMemory(Range range) const override;
    std::vector<Run> residency(Range range) const override;
    const Descriptor& mappable() const override;
    bool dropCache() const override;
    void drop(Range range) const override;

    void checkSize(std::int64_t size) const override;
    void create(mode_t permissions) override;
    void beginWriting() override;
    bool isWriting() const override { return m_isWriting; }
    void endWriting() override;
    void resize(std::int64_t size) override;
    void write(const char* buffer, Range range, const std::shared_ptr<const void>& memory) override;
    bool zero(Range range, bool takesRoom) override;
    void beginWriteBack(Range range) const override;
    void awaitWriteBack(Range range) const override;
    void flush() const override;
    bool hasLostWrites() const override { return *m_hasLostWrites; }

private:
    class WritesCounted;

    void checkDirectory() const;
    void openForReading(const Descriptor& found);
    void take(Descriptor file, const struct stat& status);
    void refuseUse() const;
    const BlockDevice* device() const { return m_device ? &*m_device : nullptr; }
    const Descriptor& fileWithBytes() const { return m_device ? m_shown : m_file; }
    const Descriptor& fileForDisk() const { return m_device ? m_file : m_direct; }
    void openForDisk();
    [[noreturn]] void failFlush(int error) const;
    std::int64_t readAt(const Descriptor& file, char* buffer, Range range) const;
    void writeAt(const Descriptor& file, const char* buffer, Range range);
    void writeToDevice(const char* buffer, Range range);

    std::string m_path;
    Descriptor m_file;
    Descriptor m_direct; // a file again, to be read past what is in memory of it; none while it is written
    std::optional<BlockDevice> m_device;

    // By a loop device that can only be read. None where its file can be written through the device, or is not to be
    // seen.
    Descriptor m_shown;
    Descriptor m_written; // a device, beside m_file, which claims it
    std::int64_t m_size = 0;
    mode_t m_permissions = 0;
    bool m_isClaimed = false; // a device: nobody else uses it as a whole, as the system does with one that is mounted

    // Whether every change of it leaves a stamp of this machine's clock once it is flushed, those by mappings, too, and
    // what is mapped is what is read. Not where the file system is not known to work so: in memory, over a network, in
    // user space, or put together from several others.
    bool m_isStamped = false;
    bool m_isWriting = false;
    std::int64_t m_bytesWritten = 0; // by this program
    std::unique_ptr<std::atomic<bool>> m_hasLostWrites = std::make_unique<std::atomic<bool>>(false);
};

} // namespace kelvane::tool
