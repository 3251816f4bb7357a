// A range of an image in memory.
#pragma once

#include <cstddef>

#include "base/Range.h"
#include "image/Image.h"

namespace kelvane::tool {

// Mapped where that can be done, so that nothing is copied; a piece at a time, because the system keeps eight bytes
// for every page that is mapped, which are gigabytes for a terabyte. One at a time in a thread.
class MappedData {
public:
    // Fails as Image::read does.
    MappedData(const Image& image, Range range);
    ~MappedData();
    MappedData(const MappedData&) = delete;
    MappedData& operator=(const MappedData&) = delete;

    // To be read alone. When the data goes away, for the image is cut short or the disk fails, zeros take its place.
    char* get() const { return m_start + (m_range.offset - m_mapped.offset); }

    // Whether the data was there all the time.
    bool isWhole() const;

    // Fails as Image::read does, because it was not.
    [[noreturn]] void fail() const;

private:
    void readPieces() const;

    const Image& m_image;
    Range m_range;
    Range m_mapped; // whole pages
    char* m_start;
};

} // namespace kelvane::tool
