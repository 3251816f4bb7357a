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

    // What is in memory is copied from there, all else comes from the disk past it. The buffer is one of `memory`, or
    // its pages will be.
    void read(char* buffer, Range range) const;

    // Memory for data that is read, or on its way.
    Bytes memory(std::size_t size) const { return m_pool->take(size); }

private:
    friend class ImageData;

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
    const char* get() const { return m_start + (m_range.offset - m_window.offset); }

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
    Bytes m_memory;
};

} // namespace kelvane::tool
