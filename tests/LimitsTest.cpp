// The edges of what the format and the system allow, with real files and the kernel's own failures.
#include <csignal>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <iostream>

#include "Support.h"
#include "TargetWriteGuard.h"

namespace kelvane::testing {

namespace {

constexpr int64_t MOST_BLOCKS = (int64_t {1} << 31) - 1;
constexpr int64_t BLOCK = 4096;

// A hash file for `blocks` blocks from the partition offset on, of which nothing but the header takes space; none
// where the file system cannot hold one.
std::unique_ptr<BlockHashStore> openSparse(const std::string& path, int64_t partitionOffset, int64_t blocks)
{
    const auto end = static_cast<kelvane_size_t>(partitionOffset + blocks * BLOCK);
    writeFile(path, {});
    if (::truncate(path.c_str(), static_cast<off_t>(Peer::computeFileSize(end, BLOCK, 32))) != 0) {
        return nullptr;
    }
    Peer::initHeader(path, end, partitionOffset, BLOCK, 1);
    return BlockHashStore::open(path, end);
}

void report(const std::string& what)
{
    std::cout << what << (::testing::Test::HasFailure() ? ": wrong\n" : ": right\n");
}

TEST(LimitsTest, TargetsOf8TiB)
{
    const TemporaryDirectory directory;
    Bytes data = randomBytes(BLOCK, 1);
    for (const int64_t partition : {int64_t {0}, 5 * (int64_t {1} << 30)}) {
        for (const int64_t blocks : {MOST_BLOCKS, MOST_BLOCKS + 1}) {
            const auto store = openSparse(directory.file("hashes"), partition, blocks);
            if (!store) {
                GTEST_SKIP() << "the file system has no files of 66 GiB";
            }
            const int64_t end = partition + blocks * BLOCK;
            store->update_hashes(end - BLOCK, data.data(), BLOCK);
            EXPECT_EQ(store->get_hash(end - BLOCK, BLOCK, nullptr), digestOf(digestOf(data)));
            std::ifstream file(directory.file("hashes"), std::ios::binary);
            file.seekg(static_cast<int64_t>(DATA) + (blocks - 1) * 33 + 1);
            EXPECT_EQ(file.peek(), digestOf(data)[0]);
            EXPECT_EQ(failureOf([&] { store->invalidate_hashes(end, 0); }),
                      "update_hashes: offset is out of bounds: " + std::to_string(end) + ", "
                          + std::to_string(blocks * BLOCK));
            if (blocks > MOST_BLOCKS) {
                EXPECT_EQ(failureOf([&] { store->invalidate_hashes(partition, blocks * BLOCK); }),
                          "update_hashes: too many blocks in one request: 2147483648");
            }
        }
        report("limits: 2147483648 blocks from offset " + std::to_string(partition) + " on");
    }
}

// Files end at `size` bytes, where the kernel first writes short and then fails.
void limitFiles(rlim_t size)
{
    const rlimit limit = {size, RLIM_INFINITY};
    std::signal(SIGXFSZ, SIG_IGN);
    ::setrlimit(RLIMIT_FSIZE, &limit);
}

std::string failuresWhereFilesEnd()
{
    MemoryStore memory(1000 * BLOCK, 0, BLOCK); // 40960 bytes of hash file
    const std::string other = memory.directory.file("other");
    TargetWriteGuard guard(*memory.store, 0, 1000 * BLOCK);
    limitFiles(20000);
    std::string texts = failureOf([&] { guard.commit(memory.target.bytes.data()); });
    texts += ", " + failureOf([&] { BlockHashStore::create(other, Blake2dHashFunctionType, 1 << 30, 0, BLOCK, true); });
    limitFiles(60000);
    texts += ", " + failureOf([&] { BlockHashStore::open(memory.path, 2000 * BLOCK); });
    limitFiles(RLIM_INFINITY);
    const bool right = memory->get_hash(0, 1000 * BLOCK, memory.target.supplier())
        == aggregateDigest(memory.target.bytes, BLOCK, 0, 1000 * BLOCK);
    return texts + (right && memory.target.calls == 1 && !std::filesystem::exists(other) ? "" : ", wrong");
}

TEST(LimitsDeathTest, AFileThatMayNotGrowAndAFullDevice)
{
    EXPECT_EXIT(std::cerr << failuresWhereFilesEnd();
                ::_exit(0), ::testing::ExitedWithCode(0),
                "failed to write hash: 0: 27, failed to write to block hash file, "
                "error in write while initting file region: 27$");

    MemoryStore memory(300 * BLOCK, 0, BLOCK);
    const std::string link = memory.directory.file("full");
    std::filesystem::create_symlink("/dev/full", link);
    EXPECT_EQ(failureOf([&] { BlockHashStore::create(link, Blake2dHashFunctionType, 1 << 20, 0, BLOCK, true); }),
              "failed to write to block hash file");
    EXPECT_FALSE(std::filesystem::exists(link)); // the link, that is
    ASSERT_GE(Peer::file(*memory.store).open("/dev/full", O_RDWR), 0);
    EXPECT_EQ(failureOf([&] { memory->get_hash(0, 300 * BLOCK, memory.target.supplier()); }),
              "failed to write hash: 0: 28");
    EXPECT_EQ(failureOf([&] { memory->update_hashes(BLOCK, memory.target.bytes.data(), BLOCK); }),
              "failed to write hash: 4096: 28");
    SimpleCachedReader& file = Peer::file(*memory.store);
    EXPECT_EQ(file.seek(INT64_MAX, SEEK_SET), INT64_MAX); // behind which no byte can lie
    EXPECT_EQ(file.read(memory.target.bytes.data(), 1) + file.write(memory.target.bytes.data(), 1), -2);
    report("kernel failures: 3 at a file's largest size, 3 on a full device");
}

} // namespace
} // namespace kelvane::testing
