// Copies ranges from one image to another so that no crash leaves a hash of bytes that are not there.
#pragma once

#include <memory>
#include <vector>

#include "base/Range.h"
#include "image/Image.h"
#include "terminal/Progress.h"
#include "work/HashedImage.h"

namespace kelvane::tool {

// The hashes of a range are forgotten on the disk before it is written, and stored after it is on the disk.
class Copier {
public:
    // `isSparse`: zeros become holes.
    Copier(const Image& source, Image& destination, HashedImage& hashed, bool isSparse, Progress& progress);

    // Ascending ranges of whole blocks, but for the image's end.
    void copy(const std::vector<Range>& ranges);

    bool foundForeignChange() const { return m_foundForeignChange; }

private:
    struct Part {
        Range range;
        bool isZeros;
        char* data; // null for a hole
    };

    void add(Range range, bool isHole);
    void flush();
    std::vector<Part> readBatch();
    void write(const Part& part);
    void writeZeros(Range range);

    const Image& m_source;
    Image& m_destination;
    HashedImage& m_hashed;
    bool m_isSparse;
    Progress& m_progress;
    std::int64_t m_blockSize;
    std::int64_t m_room;
    std::unique_ptr<char[]> m_buffer;
    std::vector<Part> m_batch;
    std::int64_t m_taken = 0; // of the room
    bool m_foundForeignChange = false;
};

} // namespace kelvane::tool
