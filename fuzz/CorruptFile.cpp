#include "CorruptFile.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <new>

#include "../tests/Allocations.h"
#include "HashFileInspector.h"

namespace kelvane::testing {

namespace {

__extension__ using Wide = unsigned __int128; // in which no size overflows

constexpr std::size_t HEADER = sizeof(HashFileHeader);
constexpr std::size_t LARGEST_BLOCK = 1 << 20;        // larger ones take long to hash
constexpr std::size_t LARGEST_RESIZED_FILE = 1 << 20; // no file is made to grow further

// The most that opening may hold besides a block and the zeros of a file that grows: the file's cache, twice while
// one replaces the other.
constexpr std::size_t HELD_AT_MOST = 2 * 49152 + 4096;

Wide fileSizeFor(uint64_t target, uint32_t blockSize)
{
    const Wide entries = (Wide {target} + blockSize - 1) / blockSize * ENTRY;
    return DATA + (entries + 4095) / 4096 * 4096;
}

bool isValid(const HashFileHeader& header, std::size_t fileSize)
{
    return fileSize >= HEADER && header.magic == 0x20001312 && header.version == 0 && header.dataStart == DATA
        && header.hash == 1 && header.blockSize != 0 && fileSizeFor(header.target, header.blockSize) == fileSize;
}

// The file that is opened, which has no name on any disk.
const int fd = ::memfd_create("hashes", MFD_CLOEXEC);
const std::string path = "/proc/self/fd/" + std::to_string(fd);

Bytes content()
{
    Bytes bytes(std::filesystem::file_size(path));
    return ::pread(fd, bytes.data(), bytes.size(), 0) == std::ssize(bytes) ? bytes : Bytes();
}

std::string open(std::unique_ptr<BlockHashStore>& store, uint64_t target)
{
    try {
        store = BlockHashStore::open(path, target);
        return "opened";
    } catch (const std::runtime_error&) {
        return "refused";
    } catch (const std::bad_alloc&) {
        return "no memory";
    } catch (const std::exception& exception) {
        return exception.what();
    }
}

// Every operation on the target's first and last bytes, taken as zeros; the header and the file's size stay.
void use(BlockHashStore& store, const HashFileHeader& header, const Bytes& right)
{
    const bool hasBytes = header.partition < header.target && header.target - header.partition <= INT64_MAX;
    const uint64_t length = hasBytes ? std::min<uint64_t>(header.target - header.partition, 8192) : 1;
    for (const uint64_t start : {header.partition, header.target - length}) {
        const bool usable = hasBytes && start <= INT64_MAX;
        MemoryTarget target {Bytes(length), static_cast<kelvane_off_t>(start)};
        const auto count = static_cast<kelvane_buf_len_t>(length);
        const auto hash = [&] { return store.get_hash(target.partitionOffset, count, target.supplier()); };
        const std::string failure = failureOf([&] {
            hash();
            store.update_hashes(target.partitionOffset, target.bytes.data(), count);
            const auto known = hash();
            store.invalidate_hashes(target.partitionOffset, count);
            EXPECT_EQ(hash(), known);
        });
        EXPECT_EQ(failure.substr(0, 33), usable ? "(none)" : "get_hash: offset is out of bounds");
    }
    EXPECT_EQ(failureOf([] { HashFileInspector(path).for_each_unknown_range([](auto, auto) {}); }), "(none)");
    store.discard_torn_entries();
    const Bytes after = content();
    ASSERT_EQ(after.size(), right.size());
    EXPECT_TRUE(std::equal(right.begin(), right.begin() + DATA, after.begin())) << "the header has changed";
}

bool checkOpening(uint64_t target, const Bytes& file, HashFileHeader header)
{
    const bool valid = isValid(header, file.size());
    const Wide size = valid ? fileSizeFor(target, header.blockSize) : 0;
    if (size > LARGEST_RESIZED_FILE && size <= INT64_MAX) {
        return false;
    }
    std::string expected = "refused";
    Bytes right = file;
    if (valid && size <= INT64_MAX) {
        expected = "opened";
        right.resize(static_cast<std::size_t>(size));
        if (target != header.target) {
            header.target = target;
            header.gap = header.lastGap = 0;
            right = withHeader(std::move(right), header);
        }
    }
    writeFile(path, file);
    std::unique_ptr<BlockHashStore> store;
    std::string outcome;
    const std::size_t peak = peakOf(LARGEST_BLOCK, [&] { outcome = open(store, target); });
    const std::size_t growth = std::max(right.size(), file.size()) - file.size();
    EXPECT_EQ(outcome, expected);
    EXPECT_LE(peak, HELD_AT_MOST + growth);
    EXPECT_EQ(content(), right);
    if (store && valid && header.blockSize <= LARGEST_BLOCK) {
        use(*store, header, right);
    }
    return store != nullptr;
}

} // namespace

Bytes withHeader(Bytes file, const HashFileHeader& header)
{
    std::memcpy(file.data(), &header, HEADER);
    return file;
}

bool checkCorruptFile(const Bytes& file, uint64_t otherTargetSize)
{
    HashFileHeader header;
    std::copy_n(file.begin(), std::min(file.size(), HEADER), reinterpret_cast<unsigned char*>(&header));
    checkOpening(otherTargetSize, file, header);
    return checkOpening(header.target, file, header);
}

bool checkCorruptFileFrom(const unsigned char* input, std::size_t size)
{
    constexpr std::size_t START = HEADER + 12;
    if (size < START) {
        return checkCorruptFile(Bytes(input, input + size), 4096);
    }
    uint32_t fileSize = 0;
    uint64_t otherTargetSize = 0;
    std::memcpy(&fileSize, input + HEADER, sizeof(fileSize));
    std::memcpy(&otherTargetSize, input + HEADER + 4, sizeof(otherTargetSize));
    Bytes file(input, input + HEADER);
    file.resize(fileSize % (16 * 4096 + 1));
    if (file.size() > DATA) {
        std::copy_n(input + START, std::min(size - START, file.size() - DATA), file.begin() + DATA);
    }
    return checkCorruptFile(file, otherTargetSize);
}

} // namespace kelvane::testing
