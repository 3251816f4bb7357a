// The disk images that the program works on: regular files and block devices.
#pragma once

#include <cstdint>
#include <string>

#include "base/Range.h"

namespace kelvane::tool {

// May be read by several threads at once. Every failure is a Failure that names the image and the offset.
class Image {
public:
    enum class Access { Read, Write, Create };

    Image(std::string path, Access access);
    ~Image();
    Image(const Image&) = delete;
    Image& operator=(const Image&) = delete;

    const std::string& path() const { return m_path; }
    std::int64_t size() const { return m_size; }
    bool isBlockDevice() const { return m_isBlockDevice; }

    void read(char* buffer, Range range) const;

    void write(const char* buffer, Range range);
    void flush() const;
    void resize(std::int64_t size); // regular files alone

    // The first stretch of data at or behind an offset and before `end`; what lies before it is a hole. Empty,
    // at `end`, when there is only a hole.
    Range nextData(std::int64_t offset, std::int64_t end) const;

    // Forgets what the system holds in memory of the image, so that the next reads come from the disk.
    void dropCache() const;

private:
    std::string m_path;
    int m_fd = -1;
    std::int64_t m_size = 0;
    bool m_isBlockDevice = false;
};

} // namespace kelvane::tool
