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

constexpr std::size_t HEADER = 56;
constexpr std::size_t PAGE = 4096;
constexpr std::size_t ENTRY = 33;
constexpr std::size_t LARGEST_BLOCK = 1 << 20;        // allocations for larger ones are made to fail
constexpr std::size_t LARGEST_RESIZED_FILE = 1 << 20; // no file is made to grow further

template <class T>
T fieldAt(const unsigned char* bytes, std::size_t offset)
{
    T value;
    std::memcpy(&value, bytes + offset, sizeof(value));
    return value;
}

struct Fields {
    explicit Fields(const Bytes& file)
        : blockSize(fieldAt<std::uint32_t>(file.data(), 24))
        , target(fieldAt<std::uint64_t>(file.data(), 32))
        , partition(fieldAt<std::uint64_t>(file.data(), 40))
    {
    }
    std::uint32_t blockSize;
    std::uint64_t target, partition;
};

// The format's rules, in arithmetic that does not overflow.
Wide fileSizeFor(std::uint64_t target, std::uint32_t blockSize)
{
    const Wide entries = (Wide {target} + blockSize - 1) / blockSize * ENTRY;
    return PAGE + (entries + PAGE - 1) / PAGE * PAGE;
}

bool isValid(const Bytes& file)
{
    return file.size() >= HEADER && fieldAt<std::uint64_t>(file.data(), 0) == 0x20001312
        && fieldAt<std::uint64_t>(file.data(), 8) == 0 && fieldAt<std::uint64_t>(file.data(), 16) == PAGE
        && fieldAt<std::uint32_t>(file.data(), 48) == 1 && Fields(file).blockSize != 0
        && fileSizeFor(Fields(file).target, Fields(file).blockSize) == file.size();
}

// A file without a name on any disk.
class MemoryFile {
public:
    explicit MemoryFile(const Bytes& bytes)
        : m_fd(::memfd_create("hashes", MFD_CLOEXEC))
    {
        if (m_fd < 0 || ::pwrite(m_fd, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
            std::abort();
        }
    }
    ~MemoryFile() { ::close(m_fd); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    std::string path() const { return "/proc/self/fd/" + std::to_string(m_fd); }
    Bytes content() const
    {
        struct stat status = {};
        ::fstat(m_fd, &status);
        Bytes bytes(static_cast<std::size_t>(status.st_size));
        const ssize_t count = ::pread(m_fd, bytes.data(), bytes.size(), 0);
        return count == status.st_size ? bytes : Bytes();
    }

private:
    int m_fd;
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

// What opening must come to for a block of this size in a file that is right otherwise.
Outcome outcomeFor(std::uint32_t blockSize)
{
    return blockSize <= LARGEST_BLOCK ? Outcome::Opened : Outcome::OutOfMemory;
}

// Every operation on the target's first and last bytes: what lies outside the target is refused, the header and
// the file's size stay.
std::string use(BlockHashStore& store, const MemoryFile& memory, const Bytes& file)
{
    const Fields header(file);
    const std::uint64_t end = std::min<std::uint64_t>(header.target, INT64_MAX);
    const bool usable = header.partition < end;
    const std::uint64_t length = usable ? std::min<std::uint64_t>(end - header.partition, 2 * PAGE) : 1;
    const auto zeros = [](const auto& offsets, const auto& lengths) {
        std::vector<std::unique_ptr<char[]>> data;
        for (std::size_t i = 0; i < offsets.size(); ++i) {
            data.push_back(std::make_unique<char[]>(static_cast<std::size_t>(lengths[i])));
        }
        return data;
    };
    std::vector<char> bytes(length);
    for (const std::uint64_t offset : {header.partition, end - length}) {
        const auto start = static_cast<kelvane_off_t>(offset);
        const auto count = static_cast<kelvane_buf_len_t>(length);
        bool accepted = true;
        try {
            accepted = store.get_hash(start, count, zeros).size() == ENTRY - 1;
            store.update_hashes(start, bytes.data(), count);
            accepted = accepted && store.get_hash(start, count, zeros).size() == ENTRY - 1;
            store.invalidate_hashes(start, count);
        } catch (const std::runtime_error&) {
            accepted = false;
        }
        if (accepted != usable) {
            return usable ? "a range inside the target was refused" : "a range outside the target was accepted";
        }
    }
    store.discard_torn_entries();
    const Bytes after = memory.content();
    return after.size() == file.size() && std::equal(file.begin(), file.begin() + PAGE, after.begin())
        ? ""
        : "using the store changed the header or the file's size";
}

// The file opened for another target size: entries stay, what is new is unknown, the header has the new size.
std::string resize(const Bytes& file, std::uint64_t target)
{
    const std::uint32_t blockSize = Fields(file).blockSize;
    const Wide size = fileSizeFor(target, blockSize);
    if (size > LARGEST_RESIZED_FILE && size <= Wide {INT64_MAX} + 2 * PAGE) {
        return ""; // larger ones are refused before anything is written
    }
    const MemoryFile memory(file);
    const Attempt attempt = open(memory, target);
    const Outcome expected = size > LARGEST_RESIZED_FILE ? Outcome::Refused : outcomeFor(blockSize);
    Bytes right = file;
    if (expected != Outcome::Refused) {
        right.resize(static_cast<std::size_t>(size));
        if (target != Fields(file).target) {
            std::memcpy(right.data() + 32, &target, sizeof(target));
            std::memset(right.data() + 28, 0, 4); // the gaps of a new header
            std::memset(right.data() + 52, 0, 4);
        }
    }
    if (attempt.outcome != expected) {
        return "opening for another target size has the wrong outcome";
    }
    if (attempt.peak > RESIZING_ALLOCATES_AT_MOST + std::min<std::size_t>(blockSize, LARGEST_BLOCK)) {
        return "opening for another target size takes too much memory";
    }
    return memory.content() == right ? "" : "opening for another target size leaves the wrong file";
}

} // namespace

CorruptFileResult checkCorruptFile(const Bytes& file, std::uint64_t otherTargetSize)
{
    const bool valid = isValid(file);
    const std::uint64_t recorded = file.size() < HEADER ? 0 : Fields(file).target;
    const MemoryFile memory(file);
    const Attempt attempt = open(memory, recorded);
    const Outcome expected = valid ? outcomeFor(Fields(file).blockSize) : Outcome::Refused;
    const std::size_t block = attempt.outcome == Outcome::Opened ? Fields(file).blockSize : 0;
    CorruptFileResult result = {attempt.outcome == Outcome::Opened, attempt.peak, ""};
    if (attempt.outcome != expected) {
        result.problem = valid ? "a good file was refused" : "a damaged file was accepted";
    } else if (attempt.peak > REFUSAL_ALLOCATES_AT_MOST + block) {
        result.problem = "opening takes too much memory: " + std::to_string(attempt.peak);
    } else if (!valid && open(memory, otherTargetSize).outcome != Outcome::Refused) {
        result.problem = "a damaged file was accepted for another target size";
    } else if (memory.content() != file) {
        result.problem = "opening changed the file";
    } else if (valid) {
        result.problem = resize(file, otherTargetSize);
    }
    if (result.problem.empty() && attempt.store) {
        result.problem = use(*attempt.store, memory, file);
    }
    return result;
}

CorruptFileResult checkCorruptFileFrom(const unsigned char* input, std::size_t size)
{
    constexpr std::size_t LARGEST_FILE = 16 * PAGE;
    constexpr std::size_t START = HEADER + 12;
    Bytes file(input, input + std::min(size, HEADER));
    if (size < START) {
        file.assign(input, input + size);
        return checkCorruptFile(file, 4096);
    }
    file.resize(fieldAt<std::uint32_t>(input, HEADER) % (LARGEST_FILE + 1));
    if (file.size() > PAGE) {
        std::copy_n(input + START, std::min(size - START, file.size() - PAGE), file.begin() + PAGE);
    }
    return checkCorruptFile(file, fieldAt<std::uint64_t>(input, HEADER + 4));
}

} // namespace kelvane::testing
