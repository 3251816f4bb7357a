// What the tests of the store share.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "BlakeHash.h"
#include "BlockHashStore.h"
#include "Logger.h"
#include "TargetSource.h"

namespace kelvane {

// Opens the private parts of a store to the tests.
struct BlockHashStoreTestPeer {
    using Store = BlockHashStore;
    using Header = Store::Header;
    static Header& header(Store& store) { return store.m_header; }
    static SimpleCachedReader& file(Store& store) { return store.m_file; }
    static std::unique_ptr<IHashFunction>& hashFunction(Store& store) { return store.m_hashFunction; }
    static kelvane_buf_len_t hashBufferSize(const Store& store) { return store.m_hashBufferSize; }
    static void initFileRegion(Store& store, uint64_t offset, uint64_t length) { store.initFileRegion(offset, length); }
    static void initHeader(const std::string& path, uint64_t target, int64_t partition, uint32_t block, uint32_t id)
    {
        Store::initHeader(path, target, partition, block, id);
    }
    static uint64_t computeFileSize(uint64_t t, uint32_t b, uint64_t h) { return Store::computeFileSize(t, b, h); }
    static int64_t toInternalOffset(const Store& s, int64_t offset) { return s.toInternalOffset(offset); }
    static int64_t fromInternalOffset(const Store& s, int64_t offset) { return s.fromInternalOffset(offset); }
};

namespace testing {

using Peer = BlockHashStoreTestPeer;
using Bytes = std::vector<unsigned char>;

// A directory of a test's own, removed at its end.
class TemporaryDirectory {
public:
    TemporaryDirectory()
    {
        std::string name = (std::filesystem::temp_directory_path() / "kelvane-test-XXXXXX").string();
        m_path = ::mkdtemp(name.data());
    }
    ~TemporaryDirectory() { std::filesystem::remove_all(m_path); }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
    std::string file(const std::string& name) const { return (m_path / name).string(); }

private:
    std::filesystem::path m_path;
};

inline Bytes readFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(file), {});
}

inline void writeFile(const std::string& path, const Bytes& bytes)
{
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

inline Bytes randomBytes(std::size_t size, unsigned seed)
{
    std::mt19937 generator(seed);
    Bytes bytes(size);
    for (unsigned char& byte : bytes) {
        byte = static_cast<unsigned char>(generator());
    }
    return bytes;
}

struct Random {
    int64_t below(int64_t end) { return static_cast<int64_t>(generator() % static_cast<uint64_t>(end)); }
    bool chance(int64_t percent) { return below(100) < percent; }
    int64_t oneOf(const std::vector<int64_t>& values)
    {
        return values[static_cast<std::size_t>(below(std::ssize(values)))];
    }

    std::mt19937_64 generator;
};

// While it lives, lines below warnings are not logged: sizes that change make many.
struct QuietLog {
    QuietLog() { Logger::setLowestLevel(KELVANE_WARNING); }
    ~QuietLog() { Logger::setLowestLevel(KELVANE_DEBUG); }
    QuietLog(QuietLog&&) = delete;
};

// The text of the exception that `operation` ends with; "(none)" when it returns.
inline std::string failureOf(const std::function<void()>& operation)
{
    try {
        operation();
    } catch (const std::exception& exception) {
        return exception.what();
    }
    return "(none)";
}

// A target in memory that answers a store's data callback, and keeps what it was asked for.
struct MemoryTarget {
    Bytes bytes;
    kelvane_off_t partitionOffset = 0;
    std::vector<std::pair<kelvane_off_t, kelvane_off_t>> asked = {}; // external offset and length
    int calls = 0;

    kelvane_size_t endOffset() const { return bytes.size() + static_cast<kelvane_size_t>(partitionOffset); }

    BlockHashStore::DataRequiredFunc supplier()
    {
        return [this](const std::vector<kelvane_off_t>& offsets, const std::vector<kelvane_off_t>& lengths) {
            std::vector<std::unique_ptr<char[]>> data;
            ++calls;
            for (std::size_t i = 0; i < offsets.size(); ++i) {
                asked.emplace_back(offsets[i], lengths[i]);
                data.push_back(std::make_unique<char[]>(static_cast<std::size_t>(lengths[i])));
                const auto start = bytes.begin() + (offsets[i] - partitionOffset);
                std::copy(start, start + lengths[i], data.back().get());
            }
            return data;
        };
    }
};

// Lends of a target in memory as much as `next` says, in views that are gone when they must not be used any more.
struct LendingTarget : TargetSource {
    LendingTarget(const Bytes& allBytes, kelvane_off_t start, std::function<int64_t(int64_t)> nextLength)
        : bytes(allBytes)
        , partitionOffset(start)
        , next(std::move(nextLength))
    {
    }

    LentData lend(kelvane_off_t offset, kelvane_buf_len_t length) override
    {
        EXPECT_EQ(lent, nullptr);
        EXPECT_GE(offset, asked.empty() ? partitionOffset : asked.back().first + asked.back().second);
        if (asked.empty() || asked.back().first + asked.back().second != offset) {
            asked.emplace_back(offset, 0);
        }
        const auto from = bytes.begin() + (offset - partitionOffset);
        const int64_t zeros = std::find_if(from, from + length, [](auto byte) { return byte != 0; }) - from;
        const int64_t count = std::clamp<int64_t>(next(length), 1, length);
        asked.back().second += std::min(count, zeros > 0 && knowsHoles ? zeros : count);
        if (zeros > 0 && knowsHoles) {
            return LentData::zeros(std::min(count, zeros));
        }
        lent = std::make_unique<Bytes>(from, from + count);
        return {lent->data(), count};
    }
    void returned() override { lent.reset(); }

    const Bytes& bytes;
    kelvane_off_t partitionOffset;
    std::function<int64_t(int64_t)> next;
    bool knowsHoles = true;
    std::unique_ptr<Bytes> lent;
    std::vector<std::pair<kelvane_off_t, kelvane_off_t>> asked = {}; // stretches that do not touch
};

// A new store, with its hash file, on a target of `size` bytes in memory.
struct MemoryStore {
    MemoryStore(std::size_t size, kelvane_off_t partitionOffset, uint32_t blockSize)
        : target {randomBytes(size, 1), partitionOffset}
        , path(directory.file("hashes"))
    {
        BlockHashStore::create(path, Blake2dHashFunctionType, target.endOffset(),
                               static_cast<kelvane_size_t>(partitionOffset), blockSize, false);
        reopen();
    }

    void reopen() { store = BlockHashStore::open(path, target.endOffset()); }
    Bytes file() const { return readFile(path); }
    BlockHashStore* operator->() const { return store.get(); }

    TemporaryDirectory directory;
    MemoryTarget target;
    std::string path;
    std::unique_ptr<BlockHashStore> store;
};

inline Bytes digestOf(Bytes bytes)
{
    return BlakeHash().get_hash(bytes.data(), static_cast<kelvane_buf_len_t>(bytes.size()));
}

// The digest of one block of a target, with zeros for every byte outside `from` to `to`.
inline Bytes blockDigest(const Bytes& target, int64_t blockSize, int64_t block, int64_t from, int64_t to)
{
    Bytes bytes(static_cast<std::size_t>(blockSize), 0);
    for (int64_t i = 0; i < blockSize; ++i) {
        const int64_t position = block * blockSize + i;
        if (from <= position && position < to) {
            bytes[static_cast<std::size_t>(i)] = target[static_cast<std::size_t>(position)];
        }
    }
    return digestOf(std::move(bytes));
}

// The aggregate hash of a range of a target, computed from its bytes alone.
inline Bytes aggregateDigest(const Bytes& target, int64_t blockSize, int64_t from, int64_t length)
{
    Bytes digests;
    for (int64_t block = from / blockSize; length > 0 && block * blockSize < from + length; ++block) {
        const Bytes digest = blockDigest(target, blockSize, block, from, from + length);
        digests.insert(digests.end(), digest.begin(), digest.end());
    }
    return digestOf(std::move(digests));
}

constexpr std::size_t DATA = 4096; // where the entries of a hash file start
constexpr std::size_t ENTRY = 33;

// Where the entry of a block starts.
constexpr std::size_t entryAt(std::size_t block)
{
    return DATA + block * ENTRY;
}

// Whether an entry says that a whole block of the target is known, but has another digest.
inline bool hasWrongEntry(const Bytes& hashFile, const Bytes& target, std::size_t blockSize)
{
    const std::size_t entries = (std::max(hashFile.size(), DATA) - DATA) / ENTRY;
    const std::size_t blocks = std::min(target.size() / blockSize, entries);
    for (std::size_t block = 0; block < blocks; ++block) {
        const unsigned char* const entry = &hashFile[entryAt(block)];
        const unsigned char* const data = &target[block * blockSize];
        if ((*entry & 1) != 0 && Bytes(entry + 1, entry + ENTRY) != digestOf(Bytes(data, data + blockSize))) {
            return true;
        }
    }
    return false;
}

// Sets the entry of a block in the bytes of a hash file: known with `digest`, or all zero without one.
inline void setEntry(Bytes& hashFile, int64_t block, const Bytes& digest)
{
    const auto entry = hashFile.begin() + static_cast<std::ptrdiff_t>(entryAt(static_cast<std::size_t>(block)));
    std::fill_n(entry, ENTRY, static_cast<unsigned char>(0));
    if (!digest.empty()) {
        *entry = 1;
        std::copy(digest.begin(), digest.end(), entry + 1);
    }
}

// Hashes one buffer at a time as BlakeHash does, but answers call number `failAt` with `size` bytes.
struct FailingHash : IHashFunction {
    FailingHash(int failingCall, std::size_t sizeOfFailure)
        : failAt(failingCall)
        , size(sizeOfFailure)
    {
    }
    HashValue get_hash(kelvane_buf_t buffer, kelvane_buf_len_t length) override
    {
        if (calls++ != failAt) {
            return BlakeHash().get_hash(buffer, length);
        }
        lengthOfFailure = length;
        return HashValue(size);
    }
    kelvane_size_t hash_size_in_bytes() const override { return 32; }

    int failAt, calls = 0;
    std::size_t size;
    kelvane_buf_len_t lengthOfFailure = 0;
};

// Runs `operation` and returns the log lines that it caused, as "level function: text"; last an exception that
// left it, as "thrown: text".
inline std::vector<std::string> logOf(const std::function<void()>& operation)
{
    std::vector<std::string> lines;
    Logger::setSink(
        [&](log_level_t level, const std::string&, int, const std::string& function, const std::string& text) {
            lines.push_back(std::to_string(level) + " " + function + ": " + text);
        });
    const std::string failure = failureOf(operation);
    Logger::setSink({});
    if (failure != "(none)") {
        lines.push_back("thrown: " + failure);
    }
    return lines;
}

// The same when `operation` runs in a destructor while an exception propagates.
inline std::vector<std::string> logWhileUnwinding(const std::function<void()>& operation)
{
    struct Unwinding {
        const std::function<void()>& operation;
        std::vector<std::string>& lines;
        ~Unwinding() { lines = logOf(operation); }
    };
    std::vector<std::string> lines;
    try {
        const Unwinding unwinding {operation, lines};
        throw std::logic_error("the exception that propagates");
    } catch (const std::logic_error&) {
        return lines;
    }
}

} // namespace testing
} // namespace kelvane
