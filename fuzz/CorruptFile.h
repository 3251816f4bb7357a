// Damaged hash files: what opening must make of one, whatever its bytes.
#pragma once

#include "../tests/Support.h"

namespace kelvane::testing {

// The start of a hash file, as the format has it.
struct HashFileHeader {
    uint64_t magic = 0x20001312, version = 0, dataStart = 4096;
    uint32_t blockSize = 4096, gap = 0;
    uint64_t target = 0, partition = 0;
    uint32_t hash = 1, lastGap = 0;
};

Bytes withHeader(Bytes file, const HashFileHeader& header);

// Opens a hash file of these bytes for another target size, and then for the one that it records: whether that
// succeeded. An independent reading of the format says what may succeed, and what is left in the file. A file that
// opens is used a little.
bool checkCorruptFile(const Bytes& file, uint64_t otherTargetSize);

// The same for a file put together from a few bytes: a header of 56, the file's size (4), the other target's size
// (8), then its entries. Fewer than 68 bytes are the file itself.
bool checkCorruptFileFrom(const unsigned char* input, std::size_t size);

} // namespace kelvane::testing
