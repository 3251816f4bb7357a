// Every system call and every allocation of every operation fails once, in every way that it can: the text is
// the documented one, nothing leaks, no entry lies, and both the same store and a fresh one answer right
// once the fault is gone.

#include <cerrno>
#include <iostream>
#include <regex>

#include "Allocations.h"
#include "Support.h"
#include "SystemCalls.h"

namespace kelvane::testing {

namespace {

constexpr uint32_t BLOCK = 512;
constexpr kelvane_off_t PARTITION = 1048576;
constexpr std::size_t SIZE = 300 * BLOCK + 100; // entries on three pages, and a block that is not whole
constexpr std::size_t SMALLER = 90 * BLOCK;

struct Lab;

// An operation under test. The target changes before it where it must.
struct Operation {
    const char* name;
    std::size_t targetSize;
    void (*run)(Lab&);
    bool mayLeaveRefusedFile; // when it is cut short
    const char* failures;     // a regular expression for all of its texts
};

struct Lab : MemoryStore {
    Lab()
        : MemoryStore(SIZE, PARTITION, BLOCK)
    {
        Logger::setLowestLevel(KELVANE_WARNING); // sizes change often here
        for (int i = 0; i < 300; i += 3) {       // every third block is known
            store->update_hashes(PARTITION + i * BLOCK, target.bytes.data() + i * BLOCK, BLOCK);
        }
        image = file();
    }

    ~Lab() { Logger::setLowestLevel(KELVANE_DEBUG); }

    // The hash file as at the start, opened for the target as it now is.
    void restart(std::size_t targetSize)
    {
        store.reset();
        std::filesystem::remove(path);
        writeFile(path, image);
        target.bytes = randomBytes(targetSize, 1);
        if (targetSize == SIZE) {
            reopen();
        }
    }

    std::string aggregate(BlockHashStore& of)
    {
        const auto hash
            = of.get_hash(PARTITION, static_cast<kelvane_buf_len_t>(target.bytes.size()), target.supplier());
        return std::string(hash.begin(), hash.end());
    }

    std::string rightAggregate() const
    {
        const auto size = static_cast<int64_t>(target.bytes.size());
        const Bytes hash = aggregateDigest(target.bytes, BLOCK, 0, size);
        return std::string(hash.begin(), hash.end());
    }

    bool everyKnownEntryIsTrue() const
    {
        const Bytes bytes = file();
        for (std::size_t i = 0; (i + 1) * BLOCK <= target.bytes.size() && DATA + (i + 1) * ENTRY <= bytes.size(); ++i) {
            const auto entry = bytes.begin() + static_cast<std::ptrdiff_t>(DATA + i * ENTRY);
            const auto block = static_cast<int64_t>(i);
            if ((*entry & 1) != 0
                && Bytes(entry + 1, entry + ENTRY)
                    != blockDigest(target.bytes, BLOCK, block, 0, static_cast<int64_t>(target.bytes.size()))) {
                return false;
            }
        }
        return true;
    }

    Bytes image;
};

void create(Lab& lab)
{
    lab.store.reset();
    BlockHashStore::create(lab.path, Blake2dHashFunctionType, lab.target.endOffset(), PARTITION, BLOCK, false);
}

void open(Lab& lab)
{
    lab.store.reset();
    lab.reopen();
    if (!lab.store) {
        throw std::runtime_error("empty");
    }
}

void hashRange(Lab& lab)
{
    const auto length = static_cast<kelvane_buf_len_t>(lab.target.bytes.size());
    if (lab.store->get_hash(PARTITION, length, lab.target.supplier()).empty()) {
        throw std::runtime_error("empty");
    }
}

void update(Lab& lab)
{
    lab.store->update_hashes(PARTITION + 70 * BLOCK + 5, lab.target.bytes.data() + 70 * BLOCK + 5, 80 * BLOCK);
}

void sync(Lab& lab)
{
    if (!lab.store->sync_to_disk()) {
        throw std::runtime_error("sync failed");
    }
}

const Operation OPERATIONS[] = {
    {"create", SIZE, create, true,
     "error opening file for writing(: [0-9]+)?|error in seek while trying to grow the file to [0-9]+, errno = [0-9]+|"
     "failed to write to block hash file|failed to seek to beginning of file to write header\\.: [0-9]+|"
     "failed to initialize header data: [0-9]+|failed to close fd while creating the block hash store: [0-9]+"},
    {"open", SIZE, open, false, "failed to (stat hash file|open file: .*|read header): [0-9]+|empty"},
    {"open and grow", 2 * SIZE, open, true,
     "failed to (stat hash file|open file: .*|read header|initialize header data): [0-9]+|"
     "failed to seek to beginning of file to write header\\.: [0-9]+|error opening file for writing|"
     "error in write while initting file region: [0-9]+|initFileRegion failed to sync hash file: [0-9]+|"
     "failed to close fd while creating the block hash store: [0-9]+|empty"},
    {"open and shrink", SMALLER, open, true,
     "failed to (stat hash file|open file: .*|read header|initialize header data|truncate file): [0-9]+|"
     "failed to seek to beginning of file to write header\\.: [0-9]+|error opening file for writing|"
     "failed to close fd while creating the block hash store: [0-9]+|empty"},
    {"get_hash", SIZE, hashRange, false, "failed to (read hash value|write hash): 1048576: [0-9]+|empty"},
    {"update_hashes", SIZE, update, false, "failed to write hash: [0-9]+: [0-9]+"},
    {"invalidate_hashes", SIZE, [](Lab& lab) { lab.store->invalidate_hashes(PARTITION + 3, 99 * BLOCK); }, false,
     "failed to write hash: [0-9]+: [0-9]+"},
    {"sync_to_disk", SIZE, sync, false, "sync failed"},
    {"discard_torn_entries", SIZE, [](Lab& lab) { lab.store->discard_torn_entries(); }, false,
     "failed to (read|clear) hash entry: [0-9]+: [0-9]+"},
};

// One fault: the k-th call of a kind, or allocation, that the operation makes.
class Injection {
public:
    enum Kind { Error, OneByte, Half, AllButOne, Allocation };

    Injection(Kind kind, int error, bool persistent, int k)
        : m_kind(kind)
        , m_error(error)
        , m_persistent(persistent)
        , m_k(k)
    {
    }

    void run(const std::function<void()>& operation)
    {
        if (m_kind == Allocation) {
            const FailingAllocation failing(m_k, m_fired);
            operation();
        } else {
            const CallHook hook([this](const CallRecord& call) { return outcome(call); });
            operation();
        }
    }

    bool fired() const { return m_fired; }

private:
    struct FailingAllocation {
        FailingAllocation(int k, bool& fired)
            : m_fired(fired)
        {
            allocationsUntilFailure = k;
        }
        ~FailingAllocation()
        {
            m_fired = allocationsUntilFailure < 0;
            allocationsUntilFailure = -1;
        }
        bool& m_fired;
    };

    Outcome outcome(const CallRecord& call)
    {
        const bool transfer = call.call == Call::ReadAt || call.call == Call::WriteAt || call.call == Call::Write;
        if (m_kind != Error && (!transfer || call.length < 2)) {
            return {};
        }
        const int position = m_position++;
        if (position != m_k && !(m_persistent && position > m_k)) {
            return {};
        }
        m_fired = true;
        const auto length = static_cast<ssize_t>(call.length);
        return {m_kind == Error ? m_error : 0, m_kind == OneByte ? 1 : m_kind == Half ? length / 2 : length - 1};
    }

    Kind m_kind;
    int m_error;
    bool m_persistent;
    int m_k;
    int m_position = 0;
    bool m_fired = false;
};

struct Figures {
    int points = 0;
    int fired = 0;
    int wrong = 0;
};

bool linesAreAsDocumented(const std::vector<std::string>& lines, const Operation& operation, bool fired)
{
    for (const std::string& line : lines) {
        const std::string text = line.substr(line.find(": ") + 2);
        if (!fired || (text != "std::bad_alloc" && !std::regex_match(text, std::regex(operation.failures)))) {
            return false;
        }
    }
    return true;
}

// Whether the store, and a fresh one, answer as if nothing had happened.
bool recovers(Lab& lab, const Operation& operation)
{
    if (!lab.everyKnownEntryIsTrue() || (lab.store && lab.aggregate(*lab.store) != lab.rightAggregate())) {
        return false;
    }
    const bool opens = failureOf([&] { lab.reopen(); }) == "(none)";
    return opens ? lab.aggregate(*lab.store) == lab.rightAggregate() : operation.mayLeaveRefusedFile;
}

// False when the operation ended before it came to the fault.
bool runPoint(Lab& lab, const Operation& operation, bool unwinding, Injection injection, Figures& figures)
{
    lab.restart(operation.targetSize);
    const int descriptors = openDescriptors() - (lab.store ? 1 : 0);
    const auto run = [&] { injection.run([&] { operation.run(lab); }); };
    const std::vector<std::string> lines = unwinding ? logWhileUnwinding(run) : logOf(run);
    const bool good = openDescriptors() - (lab.store ? 1 : 0) == descriptors
        && linesAreAsDocumented(lines, operation, injection.fired()) && recovers(lab, operation);
    ++figures.points;
    figures.fired += injection.fired() ? 1 : 0;
    figures.wrong += good ? 0 : 1;
    EXPECT_TRUE(good) << operation.name << (unwinding ? " while unwinding" : "") << ", point " << figures.points << ": "
                      << ::testing::PrintToString(lines);
    return injection.fired();
}

void sweep(const Operation& operation, bool unwinding, Figures& figures)
{
    struct Kind {
        Injection::Kind kind;
        int error;
        bool persistent;
    };
    constexpr Kind KINDS[]
        = {{Injection::Error, EIO, false},   {Injection::Error, EIO, true},    {Injection::Error, ENOSPC, false},
           {Injection::Error, ENOSPC, true}, {Injection::Error, EINTR, false}, {Injection::OneByte, 0, false},
           {Injection::Half, 0, false},      {Injection::Half, 0, true},       {Injection::AllButOne, 0, false},
           {Injection::Allocation, 0, false}};
    Lab lab;
    for (const Kind& kind : KINDS) {
        int k = 0;
        while (runPoint(lab, operation, unwinding, Injection(kind.kind, kind.error, kind.persistent, k), figures)) {
            ++k;
        }
    }
}

class FaultSweep : public ::testing::TestWithParam<bool> { };

TEST_P(FaultSweep, LeavesNothingWrong)
{
    Figures figures;
    for (const Operation& operation : OPERATIONS) {
        sweep(operation, GetParam(), figures);
    }
    std::cout << "fault sweep" << (GetParam() ? " while unwinding" : "") << ": " << figures.points << " points, "
              << figures.fired << " fired, " << figures.wrong << " wrong\n";
    EXPECT_GT(figures.fired, 300);
}

INSTANTIATE_TEST_SUITE_P(Unwinding, FaultSweep, ::testing::Bool());

} // namespace
} // namespace kelvane::testing
