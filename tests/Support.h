// What the tests of the store share.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "BlockHashStore.h"

namespace kelvane {

// Opens the private parts of a store to the tests.
struct BlockHashStoreTestPeer {
    using Store = BlockHashStore;
    using Header = Store::Header;
    static std::unique_ptr<Store> make() { return std::unique_ptr<Store>(new Store()); }
    static Header& header(Store& store) { return store.m_header; }
    static SimpleCachedReader& file(Store& store) { return store.m_file; }
    static std::unique_ptr<IHashFunction>& hashFunction(Store& store) { return store.m_hashFunction; }
    static const char* hashBuffer(const Store& store) { return store.m_hashBuffer.get(); }
    static kelvane_buf_len_t hashBufferSize(const Store& store) { return store.m_hashBufferSize; }
    static void growHashBufferWhenNeeded(Store& store, kelvane_buf_len_t size) { store.growHashBufferWhenNeeded(size); }
    static void initFileRegion(Store& store, uint64_t offset, uint64_t length) { store.initFileRegion(offset, length); }
    static void initHeader(const std::string& path, uint64_t target, int64_t partition, uint32_t block, uint32_t id)
    {
        Store::initHeader(path, target, partition, block, id);
    }
    static void throwWithErrno(const std::string& message) { Store::throwWithErrno(message); }
    static uint64_t bytesToBlocks(uint64_t bytes, uint32_t block) { return Store::bytesToBlocks(bytes, block); }
    static uint64_t computeHeaderSize() { return Store::computeHeaderSize(); }
    static uint64_t getSystemPageSize() { return Store::getSystemPageSize(); }
    static uint64_t computeDataSize(uint64_t t, uint32_t b, uint64_t h) { return Store::computeDataSize(t, b, h); }
    static uint64_t computeFileSize(uint64_t t, uint32_t b, uint64_t h) { return Store::computeFileSize(t, b, h); }
    static bool validReadWrite(int64_t expected, int64_t actual) { return Store::validReadWrite(expected, actual); }
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

} // namespace testing
} // namespace kelvane
