// What the library costs, beside other hash functions and beside the least that its work could cost.
#include <benchmark/benchmark.h>
#include <blake2.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <sodium.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <memory>
#include <numeric>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "BlakeHash.h"
#include "BlockHashStore.h"
#include "Comparison.h"
#include "Machine.h"
#include "hash/Blake2sp.h"

namespace kelvane::bench {
namespace {

using benchmark::DoNotOptimize;

constexpr int64_t KIB = 1024, MIB = 1024 * KIB, GIB = 1024 * MIB, TIB = 1024 * GIB;
constexpr int64_t BLOCK = 4 * KIB;
constexpr int64_t DIGEST = BLAKE2SP_DIGEST_SIZE_IN_BYTES;
constexpr int64_t ENTRY = DIGEST + 1;
constexpr int64_t HEADER_PAGE = 4096;
constexpr int64_t DATA_SIZE = 32 * MIB;

using Bytes = std::vector<char>;

void require(bool success, const char* failure)
{
    if (!success) {
        throw std::runtime_error(failure);
    }
}

const Bytes& randomBytes()
{
    static const Bytes bytes = [] {
        Bytes made(DATA_SIZE);
        randombytes_buf(made.data(), made.size());
        return made;
    }();
    return bytes;
}

// Every `distance`-th block from the first on, `count` in all, shuffled in the same way every time.
std::vector<int64_t> scattered(int64_t count, int64_t distance)
{
    std::vector<int64_t> blocks(static_cast<std::size_t>(count));
    std::generate(blocks.begin(), blocks.end(), [block = -distance, distance]() mutable { return block += distance; });
    std::shuffle(blocks.begin(), blocks.end(), std::mt19937_64());
    return blocks;
}

// ---------------------------------------------------------------------------------------------------
// Hashing in memory

// Blocks of one length, and places for their digests.
struct Blocks {
    Blocks(int64_t count, int64_t lengthOfEach)
        : length(lengthOfEach)
        , buffers(static_cast<std::size_t>(count))
        , digests(static_cast<std::size_t>(count * DIGEST))
    {
        for (int64_t i = 0; i < count; ++i) {
            places.push_back(digests.data() + i * DIGEST);
        }
    }

    // The first `size` of the bytes, cut into blocks.
    Blocks(const Bytes& bytes, int64_t lengthOfEach, int64_t size = DATA_SIZE)
        : Blocks(size / lengthOfEach, lengthOfEach)
    {
        char* block = const_cast<char*>(bytes.data()) - length;
        std::generate(buffers.begin(), buffers.end(), [&] { return block += length; });
    }

    Blocks(const Blocks&) = delete;
    Blocks& operator=(const Blocks&) = delete;

    void hash() const
    {
        const auto hashed = BlakeHash().get_hashes(buffers.data(), buffers.size(), length, places.data());
        require(hashed == buffers.size(), "a block was not hashed");
    }

    int64_t length;
    std::vector<void*> buffers;
    std::vector<unsigned char> digests;
    std::vector<unsigned char*> places;
};

Side hashing(const Bytes& bytes)
{
    return {[blocks = std::make_shared<Blocks>(bytes, BLOCK)] { blocks->hash(); }};
}

using Hasher = void (*)(const Blocks& blocks);

// Makes a hasher of what hashes one block: where it lies, how long it is, where its digest goes.
template <auto HashBlock>
void oneByOne(const Blocks& blocks)
{
    for (std::size_t i = 0; i < blocks.buffers.size(); ++i) {
        HashBlock(blocks.buffers[i], static_cast<std::size_t>(blocks.length), blocks.places[i]);
    }
}

constexpr Hasher kelvaneBatch = [](const Blocks& blocks) { blocks.hash(); };
constexpr Hasher kelvaneSingle = oneByOne<[](void* block, std::size_t length, unsigned char* /*digest*/) {
    DoNotOptimize(BlakeHash().get_hash(block, static_cast<int64_t>(length)));
}>;
constexpr Hasher sodium = oneByOne<[](void* block, std::size_t length, unsigned char* digest) {
    crypto_generichash(digest, DIGEST, static_cast<unsigned char*>(block), length, nullptr, 0);
}>;
constexpr Hasher openssl = oneByOne<[](void* block, std::size_t length, unsigned char* digest) {
    static EVP_MD* const algorithm = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    static EVP_MD_CTX* const context = EVP_MD_CTX_new();
    const bool hashed = EVP_DigestInit_ex2(context, algorithm, nullptr) == 1
        && EVP_DigestUpdate(context, block, length) == 1 && EVP_DigestFinal_ex(context, digest, nullptr) == 1;
    require(hashed, "OpenSSL failed");
}>;
constexpr Hasher libb2 = oneByOne<[](void* block, std::size_t length, unsigned char* digest) {
    ::blake2sp(digest, block, nullptr, DIGEST, length, 0);
}>;

struct Contestant {
    const char* name;
    Hasher hash;
    int64_t dataSize = DATA_SIZE; // what it gets of the data

    // The blocks of all sides lie in the same memory.
    Side side(int64_t blockSize) const
    {
        const auto blocks = std::make_shared<Blocks>(randomBytes(), blockSize, dataSize);
        return {[=, hasher = hash] { hasher(*blocks); }, [] {}, static_cast<double>(dataSize) / DATA_SIZE};
    }
};

constexpr Contestant BATCH = {"kelvane, many blocks per call", kelvaneBatch};
constexpr Contestant SINGLE = {"kelvane, one block per call", kelvaneSingle};
constexpr Contestant SODIUM = {"libsodium BLAKE2b-256", sodium};
constexpr Contestant OPENSSL = {"OpenSSL SHA-256", openssl};
constexpr Contestant LIBB2 = {"libb2 BLAKE2sp, 8 threads", libb2, MIB}; // it starts them for every block: slow

Duel hashing(const Contestant& ours, const Contestant& theirs, int64_t blockSize)
{
    return {theirs.name, DATA_SIZE, true, ours.side(blockSize), theirs.side(blockSize)};
}

// The blocks of a batch that the processor has in its own cache, over and over, as much as of the others.
Side hashingFromCache()
{
    constexpr int64_t CACHED = 512 * KIB;
    const auto blocks = std::make_shared<Blocks>(randomBytes(), BLOCK, CACHED);
    return {[=] {
        for (int64_t done = 0; done < DATA_SIZE; done += CACHED) {
            blocks->hash();
        }
    }};
}

Duel hashingFromMemory()
{
    return {"the same from 512 KiB", DATA_SIZE, true, hashing(randomBytes()), hashingFromCache()};
}

Duel hashingInRandomOrder()
{
    const auto blocks = std::make_shared<Blocks>(randomBytes(), BLOCK);
    std::shuffle(blocks->buffers.begin(), blocks->buffers.end(), std::mt19937_64());
    return {SODIUM.name, DATA_SIZE, true, {[=] { blocks->hash(); }}, SODIUM.side(BLOCK)};
}

// Calls for `count` blocks each.
Duel hashingFew(std::size_t count)
{
    const auto blocks = std::make_shared<Blocks>(randomBytes(), BLOCK);
    const auto hash = [=] {
        for (std::size_t done = 0; done < blocks->buffers.size(); done += count) {
            BlakeHash().get_hashes(&blocks->buffers[done], count, BLOCK, &blocks->places[done]);
        }
    };
    return {SODIUM.name, DATA_SIZE, true, {hash}, SODIUM.side(BLOCK)};
}

Duel hashingZeros()
{
    static const Bytes zeros(DATA_SIZE);
    const auto compare = [] {
        const char* sameBytes = zeros.data();
        DoNotOptimize(sameBytes); // or the compiler would know the result
        DoNotOptimize(std::memcmp(zeros.data(), sameBytes, zeros.size()));
    };
    return {"compare with itself", DATA_SIZE, true, hashing(zeros), {compare}};
}

Duel hashingSomeZeros()
{
    static const Bytes bytes = [] {
        Bytes made = randomBytes();
        const auto places = scattered(DATA_SIZE / BLOCK, 1);
        std::for_each_n(places.begin(), places.size() / 10,
                        [&](int64_t place) { std::fill_n(made.data() + place * BLOCK, BLOCK, 0); });
        return made;
    }();
    return {"random data", DATA_SIZE, true, hashing(bytes), hashing(randomBytes())};
}

void throughput(benchmark::State& state)
{
    constexpr Contestant CONTESTANTS[] = {BATCH, SINGLE, OPENSSL, SODIUM, LIBB2};
    std::vector<Side> sides;
    for (const Contestant& contestant : CONTESTANTS) {
        sides.push_back(contestant.side(state.range(0)));
    }
    const auto seconds = timeInTurn(state, sides);
    for (std::size_t i = 0; i < sides.size(); ++i) {
        state.counters[CONTESTANTS[i].name] = DATA_SIZE / fastest(seconds[i]);
    }
}

// ---------------------------------------------------------------------------------------------------
// The store

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

void addAll()
{
    const std::string instructionSet = blake2spInstructionSet();
    benchmark::AddCustomContext("processor", processorName());
    benchmark::AddCustomContext("instruction set", instructionSet);
    const auto must = [=](double withAvx512, double withAvx2) -> Requirement {
        return {instructionSet.starts_with("AVX3") ? withAvx512 : instructionSet == "AVX2" ? withAvx2 : 0};
    };
    const auto addHashing
        = [](const std::string& name, const Requirement& requirement, const Contestant& ours, const Contestant& theirs,
             int64_t blockSize) { addRow(name, 21, requirement, [=] { return hashing(ours, theirs, blockSize); }); };
    addHashing("many 4 KiB blocks per call", must(4.5, 2.5), BATCH, SODIUM, BLOCK);
    addHashing("many 64 KiB blocks per call", must(5.0, 2.65), BATCH, SODIUM, 64 * KIB);
    addHashing("one 4 KiB block per call", must(2.8, 2.1), SINGLE, SODIUM, BLOCK);
    for (const Contestant& other : {OPENSSL, LIBB2}) {
        addHashing("many 4 KiB blocks per call", {}, BATCH, other, BLOCK);
        addHashing("one 4 KiB block per call", {}, SINGLE, other, BLOCK);
    }
    addRow("4 KiB blocks from 32 MiB", 21, {0.90}, hashingFromMemory);
    addRow("4 KiB blocks in random order", 21, {}, hashingInRandomOrder);
    addRow("8 blocks of 4 KiB per call", 21, {}, [] { return hashingFew(8); });
    addRow("16 blocks of 4 KiB per call", 21, {}, [] { return hashingFew(16); });
    addRow("zero blocks, many per call", 41, {0.75}, hashingZeros);
    addRow("a tenth zero blocks, many per call", 41, {1.05}, hashingSomeZeros);
    addRow("get_hash, 64 MiB unknown", 31, {0.95}, [] { return coldRange(false); });
    addRow("get_hash, every second block unknown", 31, {0.90}, [] { return coldRange(true); });
    addRow("get_hash, 1 GiB known", 61, {0.75}, warmRange);
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
    add("clock", 501, clockRate);
    add("throughput", 7, throughput)->RangeMultiplier(2)->Range(512, MIB);
}

} // namespace
} // namespace kelvane::bench

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (sodium_init() < 0 || benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    kelvane::bench::addAll();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
