// The disk images that the program works on: regular files and block devices.
#pragma once

#include <cstdint>
#include <string>

#include "base/Descriptor.h"
#include "base/Range.h"

namespace kelvane::tool {

// May be read by several threads at once. Every failure is a Failure that names the image and the offset.
class Image {
public:
    enum class Access { Read, Write, WriteOrMissing };

    // With WriteOrMissing, one that is not there counts as empty until `create` is called. A block device that is to be
    // written must not be in use by the system, by being mounted for instance.
    Image(std::string path, Access access);

    const std::string& path() const { return m_path; }
    std::int64_t size() const { return m_size; }
    bool isBlockDevice() const { return m_isBlockDevice; }
    bool isMissing() const { return !m_fd; }
    int descriptor() const { return m_fd.get(); }

    // `size` is that of the time of opening, or of the last resizing by this program.
    std::int64_t currentSize() const;

    // Whether its path still leads to it.
    bool isNamed() const;

    // Whether every change of it leaves a stamp of this machine's clock once it is flushed, those by mappings, too, and
    // what is mapped is what is read. Not where the file system is not known to work so: in memory, over a network, in
    // user space, or put together from several others.
    bool isStamped() const { return m_isStamped; }

    // By this program.
    std::int64_t bytesWritten() const { return m_bytesWritten; }

    void read(char* buffer, Range range) const;

    void create();
    void write(const char* buffer, Range range);
    void flush() const;
    void resize(std::int64_t size); // regular files alone

    // Turns a range into zeros that take no room; false where that cannot be done.
    bool punch(Range range);

    // The first stretch of data at or behind an offset and before `end`; what lies before it is a hole. Empty,
    // at `end`, when there is only a hole.
    Range nextData(std::int64_t offset, std::int64_t end) const;

    // Forgets what the system holds in memory of the image, so that the next reads come from the disk.
    void dropCache() const;

private:
    void take(Descriptor descriptor);

    std::string m_path;
    Descriptor m_fd;
    std::int64_t m_size = 0;
    bool m_isBlockDevice = false;
    bool m_isStamped = false;
    std::int64_t m_bytesWritten = 0;
};

bool isStampingFileSystem(int fd);

} // namespace kelvane::tool
