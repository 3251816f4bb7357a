#include "CorruptFile.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>

#include "../tests/Allocations.h"
#include "BlockHashStore.h"

namespace kelvane::testing {

namespace {

using Bytes = std::vector<unsigned char>;
__extension__ using Wide = unsigned __int128;

constexpr std::size_t PAGE = 4096;
constexpr std::size_t ENTRY = 33;
constexpr std::size_t LARGEST_BLOCK = 1 << 20;        // allocations for larger ones are made to fail
constexpr std::size_t LARGEST_RESIZED_FILE = 1 << 20; // no file is made to grow further

// The most that opening may hold besides one block: the file's cache, twice while one replaces the other,
// and the zeros of a file that grows.
constexpr std::size_t OPENING_HOLDS_AT_MOST = 2 * 49152 + 4096;
constexpr std::size_t RESIZING_HOLDS_AT_MOST = OPENING_HOLDS_AT_MOST + 1048576;

struct Header {
    std::uint64_t magic, version, data;
    std::uint32_t blockSize, gap;
    std::uint64_t target, partition;
    std::uint32_t hash, tail;
};

// Zeros where the file is too short for one.
Header headerOf(const Bytes& file)
{
    Header header = {};
    if (file.size() >= sizeof(header)) {
        std::memcpy(&header, file.data(), sizeof(header));
    }
    return header;
}

// The format's rules, in arithmetic that does not overflow.
Wide fileSizeFor(std::uint64_t target, std::uint32_t blockSize)
{
    const Wide entries = (Wide {target} + blockSize - 1) / blockSize * ENTRY;
    return PAGE + (entries + PAGE - 1) / PAGE * PAGE;
}

bool isValid(const Header& header, std::size_t fileSize)
{
    return header.magic == 0x20001312 && header.version == 0 && header.data == PAGE && header.hash == 1
        && header.blockSize != 0 && fileSizeFor(header.target, header.blockSize) == fileSize;
}

// A file without a name on any disk.
class MemoryFile {
public:
    explicit MemoryFile(const Bytes& bytes)
    {
        if (::pwrite(m_fd, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
            std::abort();
        }
    }
    ~MemoryFile() { ::close(m_fd); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    std::string path() const { return "/proc/self/fd/" + std::to_string(m_fd); }
    bool holds(const Bytes& bytes) const
    {
        struct stat status = {};
        ::fstat(m_fd, &status);
        Bytes content(static_cast<std::size_t>(status.st_size));
        return ::pread(m_fd, content.data(), content.size(), 0) == status.st_size && content == bytes;
    }

private:
    int m_fd = ::memfd_create("hashes", MFD_CLOEXEC);
};

enum class Outcome { Opened, Refused, OutOfMemory };

struct Attempt {
    Outcome outcome;
    std::size_t peak;
    std::unique_ptr<BlockHashStore> store;
};

Attempt open(const MemoryFile& file, std::uint64_t target)
{
    Attempt attempt = {Outcome::Opened, 0, nullptr};
    const std::string path = file.path();
    const AllocationLimit limit(LARGEST_BLOCK);
    try {
        attempt.store = BlockHashStore::open(path, target);
    } catch (const std::runtime_error&) {
        attempt.outcome = Outcome::Refused;
    } catch (const std::bad_alloc&) {
        attempt.outcome = Outcome::OutOfMemory;
    }
    attempt.peak = limit.peak();
    return attempt;
}

// What opening must come to, for a file that is right or not but for its block size.
Outcome outcomeFor(bool right, std::uint32_t blockSize)
{
    return !right ? Outcome::Refused : blockSize <= LARGEST_BLOCK ? Outcome::Opened : Outcome::OutOfMemory;
}

// Every operation on the last bytes that offsets reach, of which those outside the target are refused.
std::string use(BlockHashStore& store, const Header& header)
{
    const std::uint64_t end = std::min<std::uint64_t>(header.target, INT64_MAX);
    const bool usable = header.partition < end;
    const std::uint64_t length = usable ? std::min<std::uint64_t>(end - header.partition, 2 * PAGE) : 1;
    const auto offset = static_cast<kelvane_off_t>(end - length);
    const auto count = static_cast<kelvane_buf_len_t>(length);
    const auto zeros = [](const auto& offsets, const auto&) {
        std::vector<std::unique_ptr<char[]>> data(offsets.size());
        std::generate(data.begin(), data.end(), [] { return std::make_unique<char[]>(2 * PAGE); });
        return data;
    };
    try {
        store.get_hash(offset, count, zeros);
        store.update_hashes(offset, std::make_unique<char[]>(length).get(), count);
        store.invalidate_hashes(offset, count);
    } catch (const std::runtime_error&) {
        return usable ? "a range inside the target was refused" : "";
    }
    store.discard_torn_entries();
    return usable ? "" : "a range outside the target was accepted";
}

// The file opened for another target size: entries stay, what is new is unknown, the header has the new size.
std::string resize(const Bytes& file, std::uint64_t target)
{
    const std::uint32_t blockSize = headerOf(file).blockSize;
    const Wide size = fileSizeFor(target, blockSize);
    if (size > LARGEST_RESIZED_FILE && size <= Wide {INT64_MAX} + 2 * PAGE) {
        return ""; // larger ones are refused before anything is written
    }
    const MemoryFile memory(file);
    const Attempt attempt = open(memory, target);
    const Outcome expected = outcomeFor(size <= LARGEST_RESIZED_FILE, blockSize);
    Bytes right = file;
    if (expected != Outcome::Refused && target != headerOf(file).target) {
        right.resize(static_cast<std::size_t>(size));
        std::memcpy(right.data() + 32, &target, sizeof(target));
        std::memset(right.data() + 28, 0, 4); // the gaps of a new header
        std::memset(right.data() + 52, 0, 4);
    }
    return attempt.outcome != expected ? "opening for another target size has the wrong outcome"
        : attempt.peak > RESIZING_HOLDS_AT_MOST + std::min<std::size_t>(blockSize, LARGEST_BLOCK)
        ? "opening for another target size takes too much memory"
        : memory.holds(right) ? ""
                              : "opening for another target size leaves the wrong file";
}

} // namespace

CorruptFileResult checkCorruptFile(const Bytes& file, std::uint64_t otherTargetSize)
{
    const Header header = headerOf(file);
    const bool valid = isValid(header, file.size());
    const MemoryFile memory(file);
    const Attempt attempt = open(memory, header.target);
    const bool opened = attempt.outcome == Outcome::Opened;
    CorruptFileResult result = {opened, attempt.peak, ""};
    if (attempt.outcome != outcomeFor(valid, header.blockSize)) {
        result.problem = valid ? "a good file was refused" : "a damaged file was accepted";
    } else if (attempt.peak > OPENING_HOLDS_AT_MOST + (opened ? header.blockSize : 0)) {
        result.problem = "opening takes too much memory: " + std::to_string(attempt.peak);
    } else if (!valid && open(memory, otherTargetSize).outcome != Outcome::Refused) {
        result.problem = "a damaged file was accepted for another target size";
    } else if (!memory.holds(file)) {
        result.problem = "opening changed the file";
    } else if (valid) {
        result.problem = resize(file, otherTargetSize);
    }
    if (result.problem.empty() && opened) {
        result.problem = use(*attempt.store, header);
    }
    return result;
}

CorruptFileResult checkCorruptFileFrom(const unsigned char* input, std::size_t size)
{
    constexpr std::size_t LARGEST_FILE = 16 * PAGE;
    constexpr std::size_t HEADER = sizeof(Header), START = HEADER + 12;
    std::uint32_t fileSize;
    std::uint64_t otherTargetSize;
    if (size < START) {
        return checkCorruptFile(Bytes(input, input + size), 4096);
    }
    std::memcpy(&fileSize, input + HEADER, sizeof(fileSize));
    std::memcpy(&otherTargetSize, input + HEADER + 4, sizeof(otherTargetSize));
    Bytes file(input, input + HEADER);
    file.resize(fileSize % (LARGEST_FILE + 1));
    if (file.size() > PAGE) {
        std::copy_n(input + START, std::min(size - START, file.size() - PAGE), file.begin() + PAGE);
    }
    return checkCorruptFile(file, otherTargetSize);
}

} // namespace kelvane::testing
