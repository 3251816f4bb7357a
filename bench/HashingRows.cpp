// Hashing in memory, beside other hash functions.
#include <blake2.h>
#include <openssl/evp.h>

#include <cstring>
#include <memory>
#include <string>

#include "Comparison.h"
#include "Data.h"
#include "Rows.h"

namespace kelvane::bench {
namespace {

using benchmark::DoNotOptimize;

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
            DoNotOptimize(BlakeHash().get_hashes(&blocks->buffers[done], count, BLOCK, &blocks->places[done]));
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

} // namespace

void addHashingRows()
{
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
    add("throughput", 7, throughput)->RangeMultiplier(2)->Range(512, MIB);
}

} // namespace kelvane::bench
