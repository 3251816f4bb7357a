// Reads an image and leaves what the system holds of it in memory as it was.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>

#include "base/Bytes.h"
#include "base/Range.h"
#include "image/Image.h"

namespace kelvane::tool {

// What becomes of pages of an image that were not in memory before they were read.
enum class Cache { LeaveAsFound, Keep };

// May be used by several threads at once. Fails as Image::read does.
class ImageReader {
public:
    ImageReader(const Image& image, Cache cache);

    const Image& image() const { return m_image; }

    // A copy: what is in memory from there, all else from the disk past it.
    struct Copy {
        Bytes memory;
        const char* data;
    };
    Copy copy(Range range) const;

private:
    friend class ImageData;

    void read(char* buffer, Range range) const;

    const Image& m_image;
    Cache m_cache;
    std::shared_ptr<BytesPool> m_pool;
};

// A stretch of an image in memory. Mapped where it is there already, so that nothing is copied. One at a time in a
// thread.
class ImageData {
public:
    ImageData(const ImageReader& reader, Range range);
    ~ImageData();
    ImageData(const ImageData&) = delete;
    ImageData& operator=(const ImageData&) = delete;

    // To be read alone. When the data goes away, for the image is cut short or the disk fails, zeros take its place.
    const char* get() const { return m_isMapped ? m_start + (m_range.offset - m_window.offset) : m_copy.data; }

    // Fails as Image::read does when the data was not there all the time.
    void check() const;

private:
    bool map();
    void populate();
    void readPieces() const;

    const ImageReader& m_reader;
    Range m_range;
    Range m_window; // whole pages
    char* m_start = nullptr;
    bool m_isMapped = false;
    ImageReader::Copy m_copy;
};

} // namespace kelvane::tool
