// A store against a model of it, under random operations. KELVANE_MODEL_SEED is the first round's seed and
// KELVANE_MODEL_ROUNDS the number of rounds, each with the next seed.
#include <algorithm>
#include <iostream>

#include "HashFileInspector.h"
#include "Support.h"
#include "SystemCalls.h"

namespace kelvane::testing {
namespace {

constexpr int64_t MEBIBYTE = 1048576;
constexpr auto CACHE = static_cast<int64_t>(SimpleCachedReader::CACHE_BUFFER_SIZE_IN_BYTES);

std::size_t at(int64_t index)
{
    return static_cast<std::size_t>(index);
}

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
        target.resize(at(newSize));
        file.resize((end + 4095) / 4096 * 4096); // entries that the last page keeps come back when the target grows
        const int64_t header[] = {0x20001312, 0, 4096, blockSize, partitionOffset + newSize, partitionOffset, 1};
        for (std::size_t i = 0; i < 7 * 8; ++i) {
            file[i] = static_cast<unsigned char>(header[i / 8] >> (8 * (i % 8)));
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

    // The blocks that a range touches; an empty one touches the block that it lies inside of.
    std::vector<int64_t> blocks(int64_t start, int64_t length) const
    {
        std::vector<int64_t> blocks;
        for (int64_t block = start / blockSize; block * blockSize < start + length; ++block) {
            blocks.push_back(block);
        }
        return blocks;
    }

    void change(int64_t start, int64_t length, bool known)
    {
        for (const int64_t block : blocks(start, length)) {
            const bool hashed = known && covers(start, length, block);
            setEntry(file, block, hashed ? blockDigest(target, blockSize, block, 0, size()) : Bytes());
        }
    }

    Bytes::const_iterator entry(int64_t block) const { return file.begin() + static_cast<int64_t>(entryAt(at(block))); }
    bool isKnown(int64_t block) const { return *entry(block) % 2 == 1; }

    using Ranges = std::vector<std::pair<int64_t, int64_t>>;

    // The stretches of those blocks of a range that are such, as far as they lie in it, in external offsets.
    Ranges stretches(int64_t start, int64_t length, const std::function<bool(int64_t)>& isSuch) const
    {
        Ranges stretches;
        for (const int64_t block : blocks(start, length)) {
            const int64_t from = std::max(start, block * blockSize);
            const int64_t to = std::min(start + length, (block + 1) * blockSize);
            if (from == to || !isSuch(block)) {
                continue;
            }
            const int64_t offset = partitionOffset + from;
            if (stretches.empty() || stretches.back().first + stretches.back().second != offset) {
                stretches.emplace_back(offset, 0);
            }
            stretches.back().second += to - from;
        }
        return stretches;
    }

    // What a query needs.
    Ranges missing(int64_t start, int64_t length) const
    {
        return stretches(start, length, [&](auto block) { return !covers(start, length, block) || !isKnown(block); });
    }

    Ranges whole(int64_t start, int64_t length, bool known) const
    {
        return stretches(start, length,
                         [&](auto block) { return covers(start, length, block) && isKnown(block) == known; });
    }

    Ranges wrong(int64_t start, int64_t length) const
    {
        return stretches(start, length, [&](auto block) {
            const Bytes digest = blockDigest(target, blockSize, block, 0, size());
            return covers(start, length, block) && isKnown(block)
                && !std::equal(digest.begin(), digest.end(), entry(block) + 1);
        });
    }

    Bytes query(int64_t start, int64_t length)
    {
        Bytes digests;
        if (length == 0) {
            return digestOf(digests);
        }
        for (const int64_t block : blocks(start, length)) {
            Bytes digest = blockDigest(target, blockSize, block, start, start + length);
            if (covers(start, length, block)) {
                if (!isKnown(block)) {
                    setEntry(file, block, digest);
                }
                digest.assign(entry(block) + 1, entry(block) + 33);
            }
            digests.insert(digests.end(), digest.begin(), digest.end());
        }
        return digestOf(digests);
    }
};

const CallCounts OPENING = {{Call::Stat, 1}, {Call::Open, 1}, {Call::ReadAt, 1}};

class Round {
public:
    explicit Round(uint64_t seed)
        : m_random {std::mt19937_64(seed)}
        , m_path(m_directory.file("hashes"))
        , m_model {m_random.oneOf({1, 3, 512, 4095, 4096, 4097, 65536}), m_random.oneOf({0, 1, 1000, 4096, 5000}), {}}
        , m_keepsToTheRules(m_random.chance(50))
    {
        if (m_model.blockSize == 65536 && m_random.chance(30)) {
            m_model.partitionOffset += int64_t {1} << 32; // and the hash file exceeds a mebibyte
        }
        m_model.resize(randomSize());
        scribble(0, m_model.size());
        writeFile(m_path, randomBytes(20000, 1)); // which is replaced
        const auto create = [this] {
            BlockHashStore::create(m_path, Blake2dHashFunctionType, endOffset(),
                                   static_cast<kelvane_size_t>(m_model.partitionOffset),
                                   static_cast<uint32_t>(m_model.blockSize), false);
        };
        expectCalls(
            create,
            {{Call::Open, 2}, {Call::Close, 2}, {Call::Seek, 2}, {Call::Write, 1 + pieces(m_model.file.size())}});
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
        if (kind < 25) {
            query(start, length);
        } else if (kind < 40) {
            useSource(start, length, kind < 32 ? SourceUse::Hash : kind < 36 ? SourceUse::Learn : SourceUse::FindWrong);
        } else if (kind < 45) {
            inspect(start, length);
        } else if (kind < 83) {
            change(start, length,
                   kind < 60       ? Change::Update
                       : kind < 65 ? Change::Zero
                       : kind < 70 ? Change::Store
                                   : Change::Invalidate);
        } else if (kind < 88) {
            resize();
        } else if (kind < 92) {
            damage();
        } else if (kind < 96) {
            reopen();
        } else {
            expectCalls([&] { EXPECT_TRUE(m_store->sync_to_disk()); }, {{Call::Fsync, 1}});
        }
        compareFile();
        work += 100 + m_model.size() / m_model.blockSize + m_model.size() / 2000;
    }

    int64_t work = 0; // how much there was to do, roughly

private:
    static void expectCalls(const std::function<void()>& operation, const CallCounts& expected)
    {
        const CallCounter counter;
        operation();
        EXPECT_EQ(counter.counts(), expected);
    }

    static std::size_t pieces(std::size_t bytes) { return (bytes + MEBIBYTE - 1) / MEBIBYTE; }
    kelvane_size_t endOffset() const { return static_cast<kelvane_size_t>(m_model.partitionOffset + m_model.size()); }

    // Up to a few hundred blocks, or as many bytes, or entries, as lie around a size that matters.
    int64_t randomSize()
    {
        const int64_t block = m_model.blockSize;
        const int64_t edge = m_random.oneOf({block, 4096, CACHE, MEBIBYTE});
        const int64_t few = m_random.below(std::min<int64_t>(450, 200000 / block) + 1) * block + m_random.below(block);
        const int64_t size = m_random.chance(60) ? few
            : m_random.chance(50)                ? edge + m_random.oneOf({-1, 0, 1, block})
                                                 : (edge / 33 + m_random.below(3)) * block;
        return std::clamp<int64_t>(size, 0, std::min<int64_t>(32000 * block, MEBIBYTE + block));
    }

    // A position in the target, mostly near the edge of a block or another one that matters, now and then outside.
    int64_t randomPosition()
    {
        const int64_t unit = m_random.chance(70) ? m_model.blockSize : m_random.oneOf({4096, CACHE, MEBIBYTE});
        const int64_t position = m_random.below(m_model.size() + 2);
        return m_random.chance(20) ? position
            : m_random.chance(10)  ? m_model.size()
                                   : position / unit * unit + m_random.oneOf({-1, 0, 0, 0, 1});
    }

    // Fills a range with zeros, with nearly nothing else, or at random.
    void scribble(int64_t start, int64_t length, bool zeros = false)
    {
        const bool random = !zeros && m_random.chance(60);
        for (int64_t i = start; i < start + length; ++i) {
            m_model.target[at(i)] = static_cast<unsigned char>(random ? m_random.generator() : 0);
        }
        if (length > 0 && !zeros && m_random.chance(50)) {
            m_model.target[at(start + m_random.below(length))] = 1;
        }
    }

    void query(int64_t start, int64_t length)
    {
        MemoryTarget target {m_model.target, m_model.partitionOffset};
        const kelvane_off_t offset = m_model.partitionOffset + start;
        const CallCounter counter;
        if (!m_model.accepts(start, length)) {
            EXPECT_NE(failureOf([&] { m_store->get_hash(offset, length, target.supplier()); }), "(none)");
            EXPECT_EQ(counter.counts(), CallCounts());
            return;
        }
        const auto runs = m_model.missing(start, length);
        if (!runs.empty() && m_random.chance(10)) {
            EXPECT_THROW(m_store->get_hash(offset, length, nullptr), std::bad_function_call);
            return;
        }
        std::size_t reads = 0;
        m_store->setOnReadCallback([&](unsigned long) { ++reads; });
        const Bytes aggregate = m_store->get_hash(offset, length, target.supplier());
        m_store->setOnReadCallback({});
        int64_t entries = 0; // their bytes
        for (const int64_t block : m_model.blocks(start, length)) {
            entries += m_model.covers(start, length, block) ? 33 : 0;
        }
        EXPECT_LE(reads, entries > 0 ? 1U : 0U);
        EXPECT_GE(reads, entries < CACHE ? 0U : 1U);
        EXPECT_LE(counter[Call::ReadAt], 2 * reads); // reading ahead, the second one meets the file's end
        EXPECT_EQ(counter[Call::WriteAt], entries > 0 && !runs.empty() ? 1U : 0U);
        EXPECT_TRUE(std::all_of(counter.counts().begin(), counter.counts().end(), [](const auto& count) {
            return count.first == Call::WriteAt || count.first == Call::ReadAt;
        }));
        EXPECT_EQ(target.asked, runs);
        EXPECT_EQ(target.calls, runs.empty() ? 0 : 1);
        EXPECT_EQ(aggregate, m_model.query(start, length));
        if (m_keepsToTheRules) {
            EXPECT_EQ(aggregate, aggregateDigest(m_model.target, m_model.blockSize, start, length));
        }
    }

    enum class SourceUse { Hash, Learn, FindWrong };

    // With data from a source that lends it in whole ranges, in blocks, or in any pieces.
    void useSource(int64_t start, int64_t length, SourceUse use)
    {
        const int64_t most = m_random.oneOf({1 << 30, 2 * m_model.blockSize, m_model.blockSize + 1, 5000});
        LendingTarget source(m_model.target, m_model.partitionOffset,
                             [&](int64_t) { return 1 + (most > 5000 ? most : m_random.below(most)); });
        source.knowsHoles = m_random.chance(50);
        const kelvane_off_t offset = m_model.partitionOffset + start;
        Model::Ranges wrong;
        Bytes aggregate;
        kelvane_buf_len_t done = -1;
        const auto progress = [&](kelvane_buf_len_t bytes) { return (done = bytes) >= 0; };
        const auto onWrong = [&](auto at, auto size) { wrong.emplace_back(at, size); };
        const CallCounter counter;
        const std::string failure = failureOf([&] {
            if (use == SourceUse::Hash) {
                aggregate = m_store->hash_range(offset, length, source, progress);
            } else if (use == SourceUse::Learn) {
                EXPECT_TRUE(m_store->learn_hashes(offset, length, source, progress));
            } else {
                EXPECT_TRUE(m_store->find_wrong_hashes(offset, length, source, onWrong, progress));
            }
        });
        if (!m_model.accepts(start, length)) {
            EXPECT_NE(failure, "(none)");
            return;
        }
        EXPECT_EQ(failure, "(none)");
        EXPECT_EQ(source.asked,
                  use == SourceUse::Hash        ? m_model.missing(start, length)
                      : use == SourceUse::Learn ? m_model.whole(start, length, false)
                                                : m_model.whole(start, length, true));
        EXPECT_TRUE(done == length || done == -1);
        const std::size_t unknown = m_model.whole(start, length, false).size();
        EXPECT_EQ(counter[Call::WriteAt] > 0, use != SourceUse::FindWrong && unknown > 0);
        EXPECT_LE(counter[Call::WriteAt], at(length / m_model.blockSize / 4096) + 1);
        EXPECT_EQ(wrong, use == SourceUse::FindWrong ? m_model.wrong(start, length) : wrong);
        const Bytes right = use == SourceUse::FindWrong ? Bytes() : m_model.query(start, length);
        EXPECT_EQ(aggregate, use == SourceUse::Hash ? right : Bytes());
    }

    // Without the store: an inspector sees what the file holds, and answers without changing it.
    void inspect(int64_t start, int64_t length)
    {
        const kelvane_off_t offset = m_model.partitionOffset + start;
        HashFileInspector inspector(m_path);
        EXPECT_EQ(std::tuple(inspector.magic_number(), inspector.version(), inspector.data_region_offset_in_bytes(),
                             inspector.block_size_in_bytes(), inspector.target_size_in_bytes(),
                             inspector.partition_offset_in_bytes(), inspector.hash_function_type(),
                             inspector.hash_size_in_bytes(), inspector.file_size_in_bytes()),
                  std::tuple(0x20001312, 0, DATA, m_model.blockSize, endOffset(), m_model.partitionOffset,
                             Blake2dHashFunctionType, 32, m_model.file.size()));
        EXPECT_EQ(HashFileInspector::file_size_for(Blake2dHashFunctionType, endOffset(), m_store->getBlockSize()),
                  m_model.file.size());
        EXPECT_EQ(std::tuple(m_store->target_size_in_bytes(), m_store->partition_offset_in_bytes()),
                  std::tuple(endOffset(), m_model.partitionOffset));
        Model::Ranges found, foundOfAll, foundByStore;
        const auto into = [](auto& list) { return [&list](auto at, auto size) { list.emplace_back(at, size); }; };
        inspector.for_each_unknown_range(into(foundOfAll));
        EXPECT_EQ(foundOfAll, m_model.whole(0, m_model.size(), false));
        if (m_model.accepts(start, length)) {
            inspector.for_each_unknown_range(offset, length, into(found));
            m_store->for_each_unknown_range(offset, length, into(foundByStore));
            EXPECT_EQ(found, m_model.whole(start, length, false));
            EXPECT_EQ(foundByStore, found);
            MemoryTarget target {m_model.target, m_model.partitionOffset};
            const Bytes right = Model(m_model).query(start, length);
            EXPECT_EQ(inspector.get_hash(offset, length, target.supplier()), right);
            MemorySource source(m_model.partitionOffset, m_model.target.data(), m_model.size());
            EXPECT_EQ(inspector.hash_range(offset, length, source), right);
            Model::Ranges wrong;
            EXPECT_TRUE(inspector.find_wrong_hashes(offset, length, source, into(wrong)));
            EXPECT_EQ(wrong, m_model.wrong(start, length));
        }
    }

    enum class Change { Update, Zero, Store, Invalidate };

    Bytes wholeDigests(int64_t start, int64_t length) const
    {
        Bytes digests;
        for (const int64_t block : m_model.blocks(start, length)) {
            if (m_model.covers(start, length, block)) {
                const Bytes digest = blockDigest(m_model.target, m_model.blockSize, block, 0, m_model.size());
                digests.insert(digests.end(), digest.begin(), digest.end());
            }
        }
        return digests;
    }

    void change(int64_t start, int64_t length, Change how)
    {
        const bool accepted = m_model.accepts(start, length);
        if (accepted) {
            scribble(start, length, how == Change::Zero);
        }
        const Bytes hashes = accepted && how == Change::Store ? wholeDigests(start, length) : Bytes();
        unsigned long written = 0;
        m_store->setOnWriteCallback([&](unsigned long bytes) { written += bytes; });
        const CallCounter counter;
        const std::string failure = failureOf([&] {
            const kelvane_off_t offset = m_model.partitionOffset + start;
            how == Change::Update
                ? m_store->update_hashes(offset, m_model.target.data() + (accepted ? start : 0), length)
                : how == Change::Zero  ? m_store->store_hashes_of_zeros(offset, length)
                : how == Change::Store ? m_store->store_hashes(offset, length, hashes.data())
                                       : m_store->invalidate_hashes(offset, length);
        });
        m_store->setOnWriteCallback({});
        EXPECT_EQ(failure == "(none)", accepted) << failure;
        const std::size_t blocks = accepted ? m_model.blocks(start, length).size() : 0;
        const bool inPieces = how == Change::Zero || how == Change::Store; // what is covered in part apart
        EXPECT_EQ(counter[Call::WriteAt], inPieces ? counter[Call::WriteAt] : blocks == 0 ? 0U : 1U);
        EXPECT_LE(counter[Call::WriteAt], 4U);
        EXPECT_LE(counter.counts().size(), 1U);
        EXPECT_EQ(written, ENTRY * blocks);
        accepted ? m_model.change(start, length, how != Change::Invalidate) : void();
    }

    void resize()
    {
        const int64_t oldSize = m_model.size();
        const std::size_t oldFileSize = m_model.file.size();
        m_model.resize(m_random.chance(5) ? 0 : randomSize());
        const std::size_t size = m_model.file.size();
        CallCounts expected = OPENING;
        if (m_model.size() != oldSize) { // the header is written, and all is done again
            expected = {{Call::Stat, 2},   {Call::Open, 3}, {Call::Close, 2},
                        {Call::ReadAt, 2}, {Call::Seek, 1}, {Call::Write, 1}};
        }
        if (size > oldFileSize) {
            expected[Call::WriteAt] = pieces(size - oldFileSize);
            expected[Call::SyncFileRange] = 1;
        } else if (size < oldFileSize) {
            expected[Call::Truncate] = 1;
        }
        reopen(expected);
        if (m_model.size() > oldSize) {
            scribble(oldSize, m_model.size() - oldSize);
            compareFile();
            if (m_keepsToTheRules) {
                change(oldSize, m_model.size() - oldSize, Change::Invalidate);
            }
        }
    }

    // Entries get flags and digests that the store would not write: a flag's lowest bit decides.
    void damage()
    {
        for (int i = 0; i < 5 && !m_keepsToTheRules && m_model.size() > 0; ++i) {
            const int64_t block = m_random.below((m_model.size() + m_model.blockSize - 1) / m_model.blockSize);
            std::generate_n(m_model.file.begin() + static_cast<int64_t>(entryAt(at(block))), ENTRY,
                            [&] { return static_cast<unsigned char>(m_random.generator()); });
        }
        m_store.reset();
        writeFile(m_path, m_model.file);
        reopen();
    }

    void reopen(const CallCounts& expected = OPENING)
    {
        m_store.reset();
        expectCalls([this] { m_store = BlockHashStore::open(m_path, endOffset()); }, expected);
        if (m_random.chance(50)) {
            m_store = std::make_unique<BlockHashStore>(std::move(*m_store));
        }
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
    bool m_keepsToTheRules; // invalidates after growth, and nothing else writes the file: hashes follow the target
    std::unique_ptr<BlockHashStore> m_store;
};

uint64_t setting(const char* name, uint64_t otherwise)
{
    const char* const value = std::getenv(name);
    return value == nullptr ? otherwise : std::stoull(value);
}

TEST(ModelTest, StoreBehavesAsItsModelUnderRandomOperations)
{
    const uint64_t firstSeed = setting("KELVANE_MODEL_SEED", 20001312);
    const uint64_t rounds = setting("KELVANE_MODEL_ROUNDS", 30);
    const QuietLog quiet;
    int operations = 0;
    for (uint64_t seed = firstSeed; seed < firstSeed + rounds && !HasFailure(); ++seed) {
        SCOPED_TRACE("KELVANE_MODEL_SEED=" + std::to_string(seed));
        Round round(seed);
        while (round.work < 60000 && !HasFailure()) {
            round.step();
            ++operations;
        }
    }
    std::cout << "model: " << operations << " operations, seeds from " << firstSeed << " on, " << rounds << " rounds\n";
}

} // namespace
} // namespace kelvane::testing
