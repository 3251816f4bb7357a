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

    // With WriteOrMissing, one that is not there counts as empty until `create` is called.
    Image(std::string path, Access access);

    const std::string& path() const { return m_path; }
    std::int64_t size() const { return m_size; }
    bool isBlockDevice() const { return m_isBlockDevice; }
    bool isMissing() const { return !m_fd; }
    int descriptor() const { return m_fd.get(); }

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
};

} // namespace kelvane::tool
