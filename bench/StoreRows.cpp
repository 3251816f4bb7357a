// The store, beside the least that its work could cost.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <string>

#include "BlockHashStore.h"
#include "Comparison.h"
#include "Data.h"
#include "Rows.h"
#include "TargetSource.h"

namespace kelvane::bench {
namespace {

using benchmark::DoNotOptimize;

// The hash file of a target, sparse on the disk, in which every block is unknown; its store; a descriptor.
class HashFile {
    std::string m_path = std::filesystem::temp_directory_path() / "kelvane-benchmark-XXXXXX";

public:
    explicit HashFile(int64_t targetSize)
        : size(targetSize)
        , fd(mkostemp(m_path.data(), O_CLOEXEC))
    {
        const struct {
            uint64_t magicNumber = 0x20001312, version = 0, dataRegionOffset = HEADER_PAGE;
            uint32_t blockSize = BLOCK, gap = 0;
            uint64_t targetSize, partitionOffset = 0;
            uint32_t hashId = Blake2dHashFunctionType, tail = 0;
        } header = {.targetSize = static_cast<uint64_t>(targetSize)};
        static_assert(sizeof(header) == 56);
        const int64_t entryPages = (size / BLOCK * ENTRY + HEADER_PAGE - 1) / HEADER_PAGE;
        require(fd >= 0 && pwrite(fd, &header, sizeof(header), 0) == sizeof(header)
                    && ftruncate(fd, HEADER_PAGE * (1 + entryPages)) == 0,
                "cannot make a hash file");
        store = open();
    }

    HashFile(const HashFile&) = delete;
    HashFile& operator=(const HashFile&) = delete;

    ~HashFile()
    {
        close(fd);
        unlink(m_path.c_str());
    }

    std::unique_ptr<BlockHashStore> open() const
    {
        return BlockHashStore::open(m_path, static_cast<kelvane_size_t>(size));
    }

    void makeAllKnown()
    {
        for (int64_t offset = 0; offset < size; offset += DATA_SIZE) {
            store->update_hashes(offset, randomBlock(0), std::min(DATA_SIZE, size - offset));
        }
    }

    void update(int64_t block) { store->update_hashes(block * BLOCK, randomBlock(block), BLOCK); }
    void query(int64_t block) { DoNotOptimize(store->get_hash(block * BLOCK, BLOCK, {})); }

    // New data for a block; few enough different ones to stay in the processor's caches.
    static char* randomBlock(int64_t block) { return const_cast<char*>(randomBytes().data()) + block % 64 * BLOCK; }

    static off_t entryOffset(int64_t block) { return HEADER_PAGE + block * ENTRY; }

    const int64_t size;
    const int fd;
    std::unique_ptr<BlockHashStore> store;
};

// A request whose data has to be hashed: all of it from one array, or every second block from an array of
// its own, against hashing the same arrays and releasing them.
Duel coldRange(bool everySecondBlock)
{
    struct Fixture {
        HashFile file {2 * DATA_SIZE};
        std::vector<std::unique_ptr<char[]>> arrays;
        std::unique_ptr<Blocks> blocks;
    };
    const auto fixture = std::make_shared<Fixture>();
    HashFile& file = fixture->file;
    file.makeAllKnown();
    const int64_t unknownBytes = everySecondBlock ? file.size / 2 : file.size;
    const int64_t arraySize = everySecondBlock ? BLOCK : file.size;
    const auto fillArrays = [=] {
        Fixture& f = *fixture;
        f.blocks = std::make_unique<Blocks>(unknownBytes / BLOCK, BLOCK);
        for (int64_t offset = 0; offset < unknownBytes; offset += BLOCK) {
            if (offset % arraySize == 0) {
                f.arrays.push_back(std::make_unique_for_overwrite<char[]>(static_cast<std::size_t>(arraySize)));
            }
            char* const block = f.arrays.back().get() + offset % arraySize;
            std::memcpy(block, randomBytes().data() + offset % DATA_SIZE, BLOCK);
            f.blocks->buffers[static_cast<std::size_t>(offset / BLOCK)] = block;
        }
    };
    const auto forget = [=, &file] {
        for (int64_t offset = 0; offset < file.size; offset += everySecondBlock ? 2 * BLOCK : file.size) {
            file.store->invalidate_hashes(offset, arraySize);
        }
        fillArrays();
    };
    const auto request = [=, &file] {
        file.store->get_hash(0, file.size,
                             [=](auto& /*offsets*/, auto& /*lengths*/) { return std::move(fixture->arrays); });
    };
    const auto hashAndRelease = [=] {
        fixture->blocks->hash();
        const auto released = std::move(fixture->arrays);
    };
    return {"get_hashes and release of the arrays",
            static_cast<double>(unknownBytes),
            true,
            {request, forget},
            {hashAndRelease, fillArrays}};
}

// A file of 1 GiB, mapped.
class Mapping {
public:
    Mapping()
        : m_fd(memfd_create("target", MFD_CLOEXEC))
    {
        for (int64_t done = 0; done < GIB; done += DATA_SIZE) {
            require(pwrite(m_fd, randomBytes().data(), DATA_SIZE, done) == DATA_SIZE, "cannot make a target");
        }
        m_bytes = static_cast<char*>(mmap(nullptr, GIB, PROT_READ, MAP_SHARED | MAP_POPULATE, m_fd, 0));
        require(m_bytes != MAP_FAILED, "cannot map the target");
    }
    ~Mapping()
    {
        munmap(m_bytes, GIB);
        close(m_fd);
    }
    Mapping(const Mapping&) = delete;
    Mapping& operator=(const Mapping&) = delete;

    char* bytes() const { return m_bytes; }

private:
    int m_fd;
    char* m_bytes;
};

// A target of which nothing is known, from a mapping: with a source, and with the callback, which has to copy.
struct ColdTarget {
    Mapping mapping;
    HashFile file {GIB};

    Action forget()
    {
        return [this] { file.store->invalidate_hashes(0, GIB); };
    }
    void learn()
    {
        MemorySource source(0, mapping.bytes(), GIB);
        require(file.store->learn_hashes(0, GIB, source), "stopped");
    }
    void hashByCallback()
    {
        file.store->get_hash(0, GIB, [this](const auto& offsets, const auto& lengths) {
            std::vector<std::unique_ptr<char[]>> arrays;
            for (std::size_t i = 0; i < offsets.size(); ++i) {
                const auto length = static_cast<std::size_t>(lengths[i]);
                arrays.push_back(std::make_unique_for_overwrite<char[]>(length));
                std::memcpy(arrays.back().get(), mapping.bytes() + offsets[i], length);
            }
            return arrays;
        });
    }
};

Duel learningAgainstCallback()
{
    const auto target = std::make_shared<ColdTarget>();
    return {"get_hash, whose callback copies",
            GIB,
            true,
            {[=] { target->learn(); }, target->forget()},
            {[=] { target->hashByCallback(); }, target->forget()}};
}

Duel learningAgainstHashing()
{
    const auto target = std::make_shared<ColdTarget>();
    const auto blocks = std::make_shared<Blocks>(GIB / BLOCK, BLOCK);
    std::generate(blocks->buffers.begin(), blocks->buffers.end(),
                  [block = target->mapping.bytes() - BLOCK]() mutable { return block += BLOCK; });
    return {"get_hashes on the same memory", GIB, true, {[=] { target->learn(); }, target->forget()}, {[=] {
                blocks->hash();
            }}};
}

// The hash of all of a target whose blocks are known, against reading the hash file as cat does. Rates are those of
// the hash file.
Duel knownRange()
{
    constexpr int64_t SIZE = 64 * GIB;
    const auto file = std::make_shared<HashFile>(SIZE);
    file->makeAllKnown();
    const auto hash = [=] {
        MemorySource nothing(0, nullptr, 0);
        DoNotOptimize(file->store->hash_range(0, SIZE, nothing));
    };
    const auto read = [=, buffer = std::make_shared<Bytes>(128 * KIB)] {
        off_t offset = 0;
        for (ssize_t count = 1; count > 0; offset += count) {
            count = pread(file->fd, buffer->data(), buffer->size(), offset);
        }
        require(offset > SIZE / BLOCK * ENTRY, "cannot read");
    };
    return {"reading the hash file", SIZE / BLOCK * ENTRY, true, {hash}, {read}};
}

Duel warmRange()
{
    const auto file = std::make_shared<HashFile>(GIB);
    file->makeAllKnown();
    const auto readAndHash = [=, entries = std::make_shared<Bytes>(GIB / BLOCK * ENTRY)] {
        const auto length = static_cast<ssize_t>(entries->size());
        require(pread(file->fd, entries->data(), entries->size(), HEADER_PAGE) == length, "cannot read");
        DoNotOptimize(BlakeHash().get_hash(entries->data(), GIB / BLOCK * DIGEST));
    };
    return {"one pread, one hash of the hashes",
            GIB,
            true,
            {[=] { DoNotOptimize(file->store->get_hash(0, GIB, {})); }},
            {readAndHash}};
}

// Calls `operation` for each of the blocks.
template <class Operation>
Action forEach(std::vector<int64_t> blocks, Operation operation)
{
    return [=] { std::for_each(blocks.begin(), blocks.end(), operation); };
}

Duel scatteredUpdates()
{
    const auto file = std::make_shared<HashFile>(GIB);
    const auto plainFile = std::make_shared<HashFile>(GIB);
    file->makeAllKnown();
    plainFile->makeAllKnown();
    auto blocks = scattered(GIB / BLOCK, 1);
    blocks.resize(4096);
    const auto hashAndWrite = [=](int64_t block) {
        char entry[ENTRY] = {1};
        const auto digest = BlakeHash().get_hash(HashFile::randomBlock(block), BLOCK);
        std::copy(digest.begin(), digest.end(), entry + 1);
        require(pwrite(plainFile->fd, entry, ENTRY, HashFile::entryOffset(block)) == ENTRY, "cannot write");
    };
    return {"one get_hash, one pwrite of 33 bytes",
            static_cast<double>(blocks.size()),
            false,
            {forEach(blocks, [=](int64_t block) { file->update(block); })},
            {forEach(blocks, hashAndWrite)}};
}

Duel queries(bool inOrder)
{
    const auto file = std::make_shared<HashFile>(GIB);
    file->makeAllKnown();
    auto blocks = scattered(GIB / BLOCK, 1);
    if (inOrder) {
        std::sort(blocks.begin(), blocks.end());
    }
    blocks.resize(8192);
    const auto read = [=](int64_t block) {
        char entry[ENTRY];
        require(pread(file->fd, entry, ENTRY, HashFile::entryOffset(block)) == ENTRY, "cannot read");
        DoNotOptimize(entry);
    };
    return {"one pread of 33 bytes",
            static_cast<double>(blocks.size()),
            false,
            {forEach(blocks, [=](int64_t block) { file->query(block); })},
            {forEach(blocks, read)}};
}

// An operation on a large target against the same on one of 1 GiB, for known blocks scattered over the last
// GiB of either: over more of a file, the system's own look-up of its pages takes longer.
using Operation = void (*)(HashFile& file, int64_t block);

Duel growth(int64_t largeSize, Operation operation)
{
    const auto side = [=](int64_t size) {
        const auto file = std::make_shared<HashFile>(size);
        auto blocks = scattered(1024, GIB / BLOCK / 1024);
        std::for_each(blocks.begin(), blocks.end(), [=](int64_t& block) { block += (size - GIB) / BLOCK; });
        forEach(blocks, [=](int64_t block) { file->update(block); })();
        return Side {forEach(blocks, [=](int64_t block) { operation(*file, block); })};
    };
    return {"the same at 1 GiB", 1024, false, side(largeSize), side(GIB)};
}

} // namespace

void addStoreRows()
{
    addRow("get_hash, 64 MiB unknown", 31, {0.95}, [] { return coldRange(false); });
    addRow("get_hash, every second block unknown", 31, {0.90}, [] { return coldRange(true); });
    addRow("get_hash, 1 GiB known", 61, {0.75}, warmRange);
    addRow("hash_range, 64 GiB known", 11, {}, knownRange);
    addRow("learn_hashes, 1 GiB from a mapping", 7, must(2.5, 0), learningAgainstCallback);
    addRow("learn_hashes, 1 GiB from a mapping", 7, {0.95}, learningAgainstHashing);
    addRow("update_hashes, scattered 4 KiB", 41, {0.85}, scatteredUpdates);
    addRow("get_hash, one known block, scattered", 41, {}, [] { return queries(false); });
    addRow("get_hash, one known block, ascending", 41, {}, [] { return queries(true); });
    const std::pair<const char*, Operation> operations[]
        = {{"open", [](HashFile& file, int64_t /*block*/) { DoNotOptimize(file.open()); }},
           {"get_hash, one known block", [](HashFile& file, int64_t block) { file.query(block); }},
           {"update_hashes, one block", [](HashFile& file, int64_t block) { file.update(block); }}};
    for (const auto& [name, operation] : operations) {
        for (const int64_t size : {TIB, 16 * TIB}) {
            addRow(std::string(name) + " at " + std::to_string(size / TIB) + " TiB", 61, {0, 1.2},
                   [=, run = operation] { return growth(size, run); });
        }
    }
}

} // namespace kelvane::bench
