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

class Mapping;

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

    bool isInMemory(Range pages) const;
    Mapping mapping(Range pages) const;
    void read(char* buffer, Range range) const;
    void readInMemory(char* buffer, Range range) const;
    void findFailure(Range range) const;

    const Image& m_image;
    Cache m_cache;
    std::shared_ptr<BytesPool> m_pool;
};

// Pages of an image as the system holds them in memory, so that nothing is copied. One at a time in a thread.
class Mapping {
public:
    Mapping() = default;
    Mapping(const Image& image, Range pages); // none, where that cannot be done
    ~Mapping();
    Mapping& operator=(Mapping&& other) noexcept;

    explicit operator bool() const { return m_start != nullptr; }

    // When they go away, for the image is cut short or the disk fails, zeros take their place.
    const char* data() const { return m_start; }
    bool areLost() const;

private:
    char* m_start = nullptr;
    std::size_t m_length = 0;
};

// A stretch of an image in memory. Mapped where it is there already. One at a time in a thread.
class ImageData {
public:
    ImageData(const ImageReader& reader, Range range);
    ImageData(const ImageData&) = delete;
    ImageData& operator=(const ImageData&) = delete;

    // To be read alone.
    const char* get() const { return m_data; }

    // Fails as Image::read does when the data was not there all the time.
    void check() const;

private:
    const ImageReader& m_reader;
    Range m_range;
    Mapping m_mapping;
    ImageReader::Copy m_copy;
    const char* m_data;
};

} // namespace kelvane::tool
