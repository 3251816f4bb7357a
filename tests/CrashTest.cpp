// Power cuts. Every write, size change and sync of the hash file and of the target is recorded; after each
// one, states are built that the disk may hold if the power fails then: of what was not synced, any choice of
// 512-byte sectors, and the old or the new size. In every state, an entry that says known must hold the
// digest of what the target holds.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <iostream>
#include <limits>
#include <map>

#include "Support.h"
#include "SystemCalls.h"
#include "TargetWriteGuard.h"

namespace kelvane::testing {

namespace {

constexpr std::size_t SECTOR = 512;
constexpr std::size_t BLOCK = 512;
constexpr std::size_t BLOCKS = 160; // their entries take two pages
constexpr std::size_t FEWER_BLOCKS = 100;

// What the system and the disk hold of one file.
class DiskFile {
public:
    explicit DiskFile(Bytes bytes)
        : m_current(bytes)
        , m_durable(std::move(bytes))
        , m_durableSize(m_durable.size())
    {
    }

    void write(std::size_t offset, const void* data, std::size_t length)
    {
        const auto* bytes = static_cast<const unsigned char*>(data);
        m_current.resize(std::max(m_current.size(), offset + length));
        std::copy(bytes, bytes + length, m_current.begin() + static_cast<std::ptrdiff_t>(offset));
        for (std::size_t sector = offset / SECTOR; sector * SECTOR < offset + length; ++sector) {
            m_pending.emplace_back(sector, sectorOf(m_current, sector));
        }
    }

    void resize(std::size_t size) { m_current.resize(size); }

    // Sectors that overlap the range are on the disk from now on; the size is not.
    void syncRange(std::size_t offset, std::size_t length)
    {
        std::vector<std::pair<std::size_t, Bytes>> rest;
        for (auto& [sector, content] : m_pending) {
            if (sector * SECTOR < offset + length && offset < (sector + 1) * SECTOR) {
                apply(m_durable, sector, content);
            } else {
                rest.emplace_back(sector, std::move(content));
            }
        }
        m_pending = std::move(rest);
    }

    void syncSize() { m_durableSize = m_current.size(); }

    void sync()
    {
        syncRange(0, std::numeric_limits<std::size_t>::max());
        syncSize();
    }

    // How many things may or may not have reached the disk.
    std::size_t openQuestions() const { return m_pending.size() + 1; }

    // The state in which those reached the disk for which `reached` says so.
    Bytes state(const std::function<bool()>& reached) const
    {
        Bytes bytes = m_durable;
        const std::size_t size = reached() ? m_current.size() : m_durableSize;
        for (const auto& [sector, content] : m_pending) {
            if (reached()) {
                apply(bytes, sector, content);
            }
        }
        bytes.resize(size);
        return bytes;
    }

    const Bytes& current() const { return m_current; }

private:
    static Bytes sectorOf(const Bytes& bytes, std::size_t sector)
    {
        const auto start = bytes.begin() + static_cast<std::ptrdiff_t>(sector * SECTOR);
        return Bytes(start, start + std::min<std::ptrdiff_t>(SECTOR, bytes.end() - start));
    }

    static void apply(Bytes& bytes, std::size_t sector, const Bytes& content)
    {
        bytes.resize(std::max(bytes.size(), sector * SECTOR + content.size()));
        std::copy(content.begin(), content.end(), bytes.begin() + static_cast<std::ptrdiff_t>(sector * SECTOR));
    }

    Bytes m_current;
    Bytes m_durable;
    std::size_t m_durableSize;
    std::vector<std::pair<std::size_t, Bytes>> m_pending;
};

enum class Recovery { DiscardTornEntries, Nothing };

// A hash file and a target file on the recorded disk; all blocks are known at the start.
class CrashLab {
public:
    explicit CrashLab(Recovery recovery = Recovery::DiscardTornEntries)
        : m_recovery(recovery)
    {
        Logger::setLowestLevel(KELVANE_WARNING); // every state that is opened may be adapted
        Bytes target = randomBytes(BLOCKS * BLOCK, 7);
        writeFile(m_targetPath, target);
        BlockHashStore::create(m_hashPath, Blake2dHashFunctionType, target.size(), 0, BLOCK, false);
        BlockHashStore::open(m_hashPath, target.size())->update_hashes(0, target.data(), BLOCKS * BLOCK);
        m_files.emplace(m_hashPath, readFile(m_hashPath));
        m_files.emplace(m_targetPath, target);
        m_targetFd = ::open(m_targetPath.c_str(), O_RDWR);
    }
    ~CrashLab()
    {
        ::close(m_targetFd);
        Logger::setLowestLevel(KELVANE_DEBUG);
    }

    // Runs the operation, with the power failing after each of its steps.
    void run(const std::function<void()>& operation)
    {
        const CallHook hook([this](const CallRecord& call) {
            follow(call);
            return Outcome {};
        });
        operation();
    }

    std::unique_ptr<BlockHashStore> open(std::size_t blocks)
    {
        return BlockHashStore::open(m_hashPath, blocks * BLOCK);
    }
    const std::string& hashPath() const { return m_hashPath; }

    void writeTarget(std::size_t offset, const Bytes& bytes)
    {
        ASSERT_EQ(::pwrite(m_targetFd, bytes.data(), bytes.size(), static_cast<off_t>(offset)),
                  static_cast<ssize_t>(bytes.size()));
    }
    void flushTarget() { ASSERT_EQ(::fsync(m_targetFd), 0); }
    void resizeTarget(std::size_t blocks) { ASSERT_EQ(::ftruncate(m_targetFd, static_cast<off_t>(blocks * BLOCK)), 0); }

    std::size_t points() const { return m_points; }
    std::size_t states() const { return m_states; }
    std::size_t lies() const { return m_lies; }

private:
    void follow(const CallRecord& call)
    {
        const auto file = m_files.find(call.fd < 0 ? std::string() : pathOf(call.fd));
        if (file == m_files.end()) {
            return;
        }
        DiskFile& disk = file->second;
        struct stat status;
        ::fstat(call.fd, &status);
        if (static_cast<std::size_t>(status.st_size) < disk.current().size()) {
            disk.resize(static_cast<std::size_t>(status.st_size)); // opened with O_TRUNC
        }
        const bool writes = call.call == Call::Write || call.call == Call::WriteAt;
        const auto offset
            = static_cast<std::size_t>(call.call == Call::Write ? ::lseek(call.fd, 0, SEEK_CUR) : call.offset);
        if (writes) {
            disk.write(offset, call.buffer, call.length);
        } else if (call.call == Call::Truncate) {
            disk.resize(call.length);
        } else if (call.call == Call::SyncFileRange) {
            disk.syncRange(offset, call.length);
        } else if (call.call != Call::Fsync) {
            return;
        }
        cutThePower();
        if (call.call == Call::Fsync) {
            disk.sync();
            cutThePower();
        } else if (writes && (::fcntl(call.fd, F_GETFL) & O_SYNC) == O_SYNC) {
            disk.syncRange(offset, call.length);
            disk.syncSize();
            cutThePower();
        }
    }

    static std::string pathOf(int fd)
    {
        char path[4096];
        const ssize_t length = ::readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof(path));
        return std::string(path, static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
    }

    // All states where they are few, some of them otherwise, among these the first and the last.
    void cutThePower()
    {
        const DiskFile& hashes = m_files.at(m_hashPath);
        const DiskFile& target = m_files.at(m_targetPath);
        const std::size_t questions = hashes.openQuestions() + target.openQuestions();
        const std::size_t all = questions < 6 ? std::size_t {1} << questions : STATES_AT_MOST;
        ++m_points;
        for (std::size_t n = 0; n < all; ++n) {
            std::size_t asked = 0;
            const auto reached = [&] {
                const bool chosen = questions < 6 ? ((n >> asked) & 1) != 0 : (m_random() & 1) != 0;
                ++asked;
                return n == 0 ? false : (n + 1 == all ? true : chosen);
            };
            const Bytes hashState = hashes.state(reached);
            check(hashState, target.state(reached));
        }
    }

    // The machine is up again: the caller opens the store for the target's size as it now is.
    void check(const Bytes& hashState, const Bytes& targetState)
    {
        ++m_states;
        std::filesystem::remove(m_statePath);
        writeFile(m_statePath, hashState);
        try {
            const auto store = BlockHashStore::open(m_statePath, targetState.size());
            if (m_recovery == Recovery::DiscardTornEntries) {
                store->discard_torn_entries();
            }
        } catch (const std::runtime_error&) {
            return; // refused: nothing is believed of it
        }
        const Bytes opened = readFile(m_statePath);
        bool lies = false;
        for (std::size_t block = 0; (block + 1) * BLOCK <= targetState.size(); ++block) {
            const auto entry = opened.begin() + static_cast<std::ptrdiff_t>(DATA + block * ENTRY);
            const auto data = targetState.begin() + static_cast<std::ptrdiff_t>(block * BLOCK);
            lies |= (*entry & 1) != 0 && Bytes(entry + 1, entry + ENTRY) != digestOf(Bytes(data, data + BLOCK));
        }
        m_lies += lies ? 1 : 0;
    }

    static constexpr std::size_t STATES_AT_MOST = 80;

    TemporaryDirectory m_directory;
    std::string m_hashPath = m_directory.file("hashes");
    std::string m_targetPath = m_directory.file("target");
    std::string m_statePath = m_directory.file("state");
    Recovery m_recovery;
    std::map<std::string, DiskFile> m_files;
    int m_targetFd;
    std::mt19937 m_random {20001312};
    std::size_t m_points = 0;
    std::size_t m_states = 0;
    std::size_t m_lies = 0;
};

void report(const char* title, const CrashLab& lab)
{
    std::cout << title << ": " << lab.points() << " power cuts, " << lab.states() << " states, " << lab.lies()
              << " with a wrong known entry\n";
}

struct Write {
    std::size_t offset;
    std::size_t length;
};

// Whole blocks, many of them, parts of blocks, and the last block.
constexpr Write WRITES[] = {
    {0, BLOCK},           {5 * BLOCK, 40 * BLOCK}, {1000, 3000}, {14 * BLOCK, 3 * BLOCK}, {(BLOCKS - 1) * BLOCK, BLOCK},
    {30 * BLOCK + 7, 100}};

void writeInSafeOrder(CrashLab& lab, BlockHashStore& store)
{
    unsigned seed = 100;
    for (const Write& write : WRITES) {
        Bytes bytes = randomBytes(write.length, ++seed);
        const auto offset = static_cast<kelvane_off_t>(write.offset);
        TargetWriteGuard guard(store, offset, static_cast<kelvane_buf_len_t>(write.length));
        lab.writeTarget(write.offset, bytes);
        lab.flushTarget();
        guard.commit(bytes.data());
    }
}

} // namespace

TEST(CrashTest, SafeOrderNeverLeavesAWrongKnownEntry)
{
    CrashLab lab;
    lab.run([&] {
        auto store = lab.open(BLOCKS);
        writeInSafeOrder(lab, *store);
        EXPECT_TRUE(store->sync_to_disk());
    });
    report("safe order", lab);
    EXPECT_GT(lab.states(), 1000U);
    EXPECT_EQ(lab.lies(), 0U);
}

TEST(CrashTest, WritingTheTargetFirstIsShownToBeUnsafe)
{
    CrashLab lab;
    lab.run([&] {
        const auto store = lab.open(BLOCKS);
        Bytes bytes = randomBytes(4 * BLOCK, 3);
        lab.writeTarget(8 * BLOCK, bytes);
        store->update_hashes(8 * BLOCK, bytes.data(), 4 * BLOCK);
    });
    report("negative control: naive order", lab);
    EXPECT_GT(lab.lies(), 0U);
}

TEST(CrashTest, TornEntriesAreWhatDiscardingIsFor)
{
    CrashLab lab(Recovery::Nothing);
    lab.run([&] { writeInSafeOrder(lab, *lab.open(BLOCKS)); });
    report("negative control: torn entries kept", lab);
    EXPECT_GT(lab.lies(), 0U);
}

TEST(CrashTest, CreatingOverAnOldFileLeavesTheOldOneOrNothingKnown)
{
    CrashLab lab;
    lab.run([&] { BlockHashStore::create(lab.hashPath(), Blake2dHashFunctionType, BLOCKS * BLOCK, 0, BLOCK, true); });
    report("create", lab);
    EXPECT_EQ(lab.lies(), 0U);
}

// The target shrinks, and grows again with other bytes.
void shrinkAndGrow(CrashLab& lab, bool invalidateFirst)
{
    lab.run([&] {
        constexpr auto TAIL = static_cast<kelvane_off_t>(FEWER_BLOCKS * BLOCK);
        if (invalidateFirst) {
            const auto store = lab.open(BLOCKS);
            store->invalidate_hashes(TAIL, (BLOCKS - FEWER_BLOCKS) * BLOCK);
            ASSERT_TRUE(store->sync_to_disk());
        }
        lab.resizeTarget(FEWER_BLOCKS);
        lab.flushTarget();
        lab.open(FEWER_BLOCKS);
        lab.writeTarget(FEWER_BLOCKS * BLOCK, randomBytes((BLOCKS - FEWER_BLOCKS) * BLOCK, 11));
        lab.flushTarget();
        lab.open(BLOCKS);
    });
}

TEST(CrashTest, AShrinkThatInvalidatesFirstIsSafeToGrowAfter)
{
    CrashLab lab;
    shrinkAndGrow(lab, true);
    report("shrink and grow, invalidated first", lab);
    EXPECT_EQ(lab.lies(), 0U);

    CrashLab careless;
    shrinkAndGrow(careless, false);
    report("negative control: shrink and grow, not invalidated", careless);
    EXPECT_GT(careless.lies(), 0U);
}

} // namespace kelvane::testing
