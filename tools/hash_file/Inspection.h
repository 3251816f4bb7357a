// Hash files as the library shows them, with failures in the program's own words.
#pragma once

#include <cstdint>
#include <kelvane/HashFileInspector.h>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/Descriptor.h"
#include "base/Failure.h"
#include "base/Range.h"

namespace kelvane::tool {

// What a hash file records of its image.
struct Geometry {
    std::int64_t blockSize;
    std::int64_t partitionOffset; // where the image starts on its device
    std::int64_t targetSize;      // of the image

    kelvane_size_t targetEnd() const { return static_cast<kelvane_size_t>(partitionOffset + targetSize); }
};

// The geometry, which fits signed numbers and is of a target that does not end before it starts.
Geometry geometryOf(const HashFileInspector& inspector, const std::string& path);

// Opens a hash file to be read alone. A Failure for what can be none, before it is opened.
Descriptor openHashFile(const std::string& path);

// Whether a file is a hash file, perhaps a damaged one.
bool isHashFile(const std::string& path);

// A failure of the library that concerns a hash file.
Failure explained(const std::string& path, const std::runtime_error& error);

// The same for whatever an operation throws.
template <class Operation>
auto explaining(const std::string& path, Operation operation) -> decltype(operation())
{
    try {
        return operation();
    } catch (const Failure&) {
        throw;
    } catch (const std::runtime_error& error) {
        throw explained(path, error);
    }
}

// Of the whole blocks in a range, those whose hash is unknown. `source` is a store or an inspector.
template <class Source>
std::vector<Range> unknownRanges(Source& source, const Geometry& geometry, Range range)
{
    std::vector<Range> ranges;
    const Range blocks = wholeBlocks(range, geometry.blockSize);
    if (blocks.length > 0) {
        source.for_each_unknown_range(geometry.partitionOffset + blocks.offset, blocks.length,
                                      [&](kelvane_off_t offset, kelvane_buf_len_t length) {
                                          append(ranges, {offset - geometry.partitionOffset, length});
                                      });
    }
    return ranges;
}

} // namespace kelvane::tool
