// Damaged hash files: what opening must make of one, whatever its bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kelvane::testing {

// The most that opening may hold besides one block: the file's cache, twice while one replaces the other,
// and the zeros of a file that grows.
constexpr std::size_t REFUSAL_ALLOCATES_AT_MOST = 2 * 49152 + 4096;
constexpr std::size_t RESIZING_ALLOCATES_AT_MOST = REFUSAL_ALLOCATES_AT_MOST + 1048576;

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
