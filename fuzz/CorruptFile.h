// Damaged hash files: what opening must make of one, whatever its bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kelvane::testing {

struct CorruptFileResult {
    bool accepted;
    std::size_t peak;    // bytes that opening for the recorded size held at most
    std::string problem; // empty when all is as it must be
};

// Opens a hash file of these bytes for the target size that it records, and then for another one. An
// independent reading of the format says which may succeed; refused files must not change. A file that
// opens is used a little.
CorruptFileResult checkCorruptFile(const std::vector<unsigned char>& file, std::uint64_t otherTargetSize);

// The same for a file put together from a few bytes: a header of 56, the file's size (4), the other target's size
// (8), then its entries. Fewer than 68 bytes are the file itself.
CorruptFileResult checkCorruptFileFrom(const unsigned char* input, std::size_t size);

} // namespace kelvane::testing
