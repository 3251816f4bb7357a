// A store against a model of it, under random operations. KELVANE_MODEL_SEED is the first round's seed and
// KELVANE_MODEL_ROUNDS the number of rounds, each with the next seed.
#include <algorithm>
#include <limits>

#include "Support.h"

namespace kelvane::testing {
namespace {

std::size_t at(int64_t index)
{
    return static_cast<std::size_t>(index);
}

struct Random {
    int64_t below(int64_t end) { return static_cast<int64_t>(generator() % static_cast<uint64_t>(end)); }
    int64_t oneOf(const std::vector<int64_t>& values) { return values[at(below(static_cast<int64_t>(values.size())))]; }
    bool chance(int64_t percent) { return below(100) < percent; }

    std::mt19937_64 generator;
};

// What the store should do, in the plainest way: block by block, byte by byte.
struct Model {
    int64_t blockSize, partitionOffset;
    Bytes target;
    Bytes file = {}; // the hash file

    int64_t size() const { return static_cast<int64_t>(target.size()); }

    void resize(int64_t newSize)
    {
        std::size_t end = DATA; // there is room for the blocks before the target too, were they its own
        for (int64_t block = 0; block * blockSize < partitionOffset + newSize; ++block) {
            end += ENTRY;
        }
        while (end % 4096 != 0) {
            ++end;
        }
        target.resize(at(newSize));
        file.resize(end); // entries that the last page keeps come back when the target grows again
        put(0, 0x20001312);
        put(16, DATA);
        put(24, static_cast<uint64_t>(blockSize));
        put(32, static_cast<uint64_t>(partitionOffset + newSize));
        put(40, static_cast<uint64_t>(partitionOffset));
        put(48, 1);
    }

    void put(std::size_t position, uint64_t value)
    {
        for (int i = 0; i < 8; ++i) {
            file[position++] = static_cast<unsigned char>(value >> (8 * i));
        }
    }

    bool accepts(int64_t start, int64_t length) const
    {
        return start >= 0 && start < size() && length >= 0 && start + length <= size();
    }

    bool covers(int64_t start, int64_t length, int64_t block) const
    {
        return start <= block * blockSize && (block + 1) * blockSize <= start + length;
    }

    // Visits the blocks that a range touches; an empty one touches the block that it lies inside of.
    template <class Visitor>
    void forEachBlock(int64_t start, int64_t length, Visitor visitor) const
    {
        for (int64_t block = start / blockSize; block * blockSize < start + length; ++block) {
            visitor(block);
        }
    }

    void change(int64_t start, int64_t length, bool known)
    {
        forEachBlock(start, length, [&](int64_t block) {
            const bool hashed = known && covers(start, length, block);
            setEntry(file, block, hashed ? blockDigest(target, blockSize, block, 0, size()) : Bytes());
        });
    }

    Bytes::const_iterator entry(int64_t block) const { return file.begin() + 4096 + block * 33; }
    bool isKnown(int64_t block) const { return *entry(block) % 2 == 1; }

    // The runs of bytes that a query needs, in external offsets.
    std::vector<std::pair<int64_t, int64_t>> missing(int64_t start, int64_t length) const
    {
        std::vector<std::pair<int64_t, int64_t>> runs;
        bool joins = false;
        for (int64_t byte = start; byte < start + length; ++byte) {
            const int64_t block = byte / blockSize;
            const bool needed = !covers(start, length, block) || !isKnown(block);
            if (needed && !joins) {
                runs.emplace_back(partitionOffset + byte, 0);
            }
            if (needed) {
                ++runs.back().second;
            }
            joins = needed;
        }
        return runs;
    }

    Bytes query(int64_t start, int64_t length)
    {
        Bytes digests;
        if (length == 0) {
            return digestOf(digests);
        }
        forEachBlock(start, length, [&](int64_t block) {
            Bytes digest = blockDigest(target, blockSize, block, start, start + length);
            if (covers(start, length, block)) {
                if (!isKnown(block)) {
                    setEntry(file, block, digest);
                }
                digest.assign(entry(block) + 1, entry(block) + 33);
            }
            digests.insert(digests.end(), digest.begin(), digest.end());
        });
        return digestOf(digests);
    }
};

class Round {
public:
    explicit Round(uint64_t seed)
        : m_random {std::mt19937_64(seed)}
        , m_path(m_directory.file("hashes"))
        , m_model {m_random.oneOf({1, 3, 512, 4095, 4096, 4097, 65536}), m_random.oneOf({0, 1, 1000, 4096, 5000}), {}}
        , m_invalidatesAfterGrowth(m_random.chance(50))
    {
        m_model.resize(randomSize());
        scribble(0, m_model.size());
        BlockHashStore::create(m_path, Blake2dHashFunctionType, endOffset(),
                               static_cast<kelvane_size_t>(m_model.partitionOffset),
                               static_cast<uint32_t>(m_model.blockSize), false);
        reopen();
    }

    void step()
    {
        const auto [start, end] = std::minmax({randomPosition(), randomPosition()});
        const int64_t length = m_random.chance(5) ? 0 : m_random.chance(3) ? start - end : end - start;
        const int64_t kind = m_random.below(100);
        SCOPED_TRACE("operation " + std::to_string(kind) + ", range " + std::to_string(start) + ", "
                     + std::to_string(length) + ", target " + std::to_string(m_model.size()) + ", block "
                     + std::to_string(m_model.blockSize));
        if (kind < 45) {
            query(start, length);
        } else if (kind < 85) {
            change(start, length, kind < 70);
        } else if (kind < 90) {
            resize();
        } else if (kind < 95) {
            reopen();
        } else {
            EXPECT_TRUE(m_store->sync_to_disk());
        }
        compareFile();
    }

private:
    kelvane_size_t endOffset() const { return static_cast<kelvane_size_t>(m_model.partitionOffset + m_model.size()); }

    // Up to a few hundred blocks, for some pages of entries, but little to hash.
    int64_t randomSize()
    {
        const int64_t blocks = m_random.below(std::min<int64_t>(450, 200000 / m_model.blockSize) + 1);
        return std::max<int64_t>(0, blocks * m_model.blockSize + m_random.below(m_model.blockSize));
    }

    // A position in the target, mostly near the edge of a block, now and then outside.
    int64_t randomPosition()
    {
        const int64_t position = m_random.below(m_model.size() + 2);
        const int64_t edge = position / m_model.blockSize * m_model.blockSize;
        return m_random.chance(20) ? position
            : m_random.chance(10)  ? m_model.size()
                                   : edge + m_random.oneOf({-1, 0, 0, 0, 1});
    }

    // Fills a range with zeros, with nearly nothing else, or at random.
    void scribble(int64_t start, int64_t length)
    {
        const bool random = m_random.chance(60);
        for (int64_t i = start; i < start + length; ++i) {
            m_model.target[at(i)] = static_cast<unsigned char>(random ? m_random.generator() : 0);
        }
        if (length > 0 && m_random.chance(50)) {
            m_model.target[at(start + m_random.below(length))] = 1;
        }
    }

    void query(int64_t start, int64_t length)
    {
        MemoryTarget target {m_model.target, m_model.partitionOffset};
        const kelvane_off_t offset = m_model.partitionOffset + start;
        if (!m_model.accepts(start, length)) {
            EXPECT_NE(failureOf([&] { m_store->get_hash(offset, length, target.supplier()); }), "(none)");
            return;
        }
        const auto runs = m_model.missing(start, length);
        if (!runs.empty() && m_random.chance(10)) {
            EXPECT_THROW(m_store->get_hash(offset, length, nullptr), std::bad_function_call);
            return;
        }
        const Bytes aggregate = m_store->get_hash(offset, length, target.supplier());
        EXPECT_EQ(target.asked, runs);
        EXPECT_EQ(aggregate, m_model.query(start, length));
        if (m_invalidatesAfterGrowth) {
            EXPECT_EQ(aggregate, aggregateDigest(m_model.target, m_model.blockSize, start, length));
        }
    }

    void change(int64_t start, int64_t length, bool update)
    {
        const bool accepted = m_model.accepts(start, length);
        if (accepted) {
            scribble(start, length);
        }
        const std::string failure = failureOf([&] {
            const kelvane_off_t offset = m_model.partitionOffset + start;
            update ? m_store->update_hashes(offset, m_model.target.data() + (accepted ? start : 0), length)
                   : m_store->invalidate_hashes(offset, length);
        });
        EXPECT_EQ(failure == "(none)", accepted) << failure;
        if (accepted) {
            m_model.change(start, length, update);
        }
    }

    void resize()
    {
        const int64_t oldSize = m_model.size();
        m_model.resize(m_random.chance(5) ? 0 : randomSize());
        reopen();
        if (m_model.size() > oldSize) {
            scribble(oldSize, m_model.size() - oldSize);
            compareFile();
            if (m_invalidatesAfterGrowth) {
                change(oldSize, m_model.size() - oldSize, false);
            }
        }
    }

    void reopen()
    {
        m_store.reset();
        m_store = BlockHashStore::open(m_path, endOffset());
    }

    void compareFile() const
    {
        const Bytes found = readFile(m_path);
        ASSERT_EQ(found.size(), m_model.file.size());
        const auto difference = std::mismatch(found.begin(), found.end(), m_model.file.begin());
        ASSERT_EQ(difference.first - found.begin(), found.end() - found.begin()) << "the first byte that differs";
    }

    Random m_random;
    TemporaryDirectory m_directory;
    std::string m_path;
    Model m_model;
    bool m_invalidatesAfterGrowth; // which callers must for hashes to follow the target's bytes
    std::unique_ptr<BlockHashStore> m_store;
};

uint64_t setting(const char* name, uint64_t otherwise)
{
    const char* const value = std::getenv(name);
    return value == nullptr ? otherwise : std::stoull(value);
}

TEST(Model, StoreBehavesAsItsModelUnderRandomOperations)
{
    const uint64_t firstSeed = setting("KELVANE_MODEL_SEED", 20001312);
    const uint64_t rounds = setting("KELVANE_MODEL_ROUNDS", 50);
    Logger::setLowestLevel(KELVANE_WARNING); // every other size would make a line
    for (uint64_t seed = firstSeed; seed < firstSeed + rounds && !HasFailure(); ++seed) {
        SCOPED_TRACE("KELVANE_MODEL_SEED=" + std::to_string(seed));
        Round round(seed);
        for (int step = 0; step < 150 && !HasFailure(); ++step) {
            round.step();
        }
    }
    Logger::setLowestLevel(KELVANE_DEBUG);
}

} // namespace
} // namespace kelvane::testing
