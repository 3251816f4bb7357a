// Every system call, every allocation and the data callback of every operation fail, in every way that they can:
// the text is the documented one, nothing leaks, no entry lies or changes outside the operation's range, and
// both the same store and a fresh one answer right once the fault is gone.

#include <cerrno>
#include <iostream>
#include <regex>

#include "Allocations.h"
#include "Support.h"
#include "SystemCalls.h"
#include "TargetWriteGuard.h"

namespace kelvane::testing {

namespace {

using Lines = std::vector<std::string>;

constexpr uint32_t BLOCK = 512;
constexpr kelvane_off_t PARTITION = 1048576;
constexpr std::size_t SIZE = 500 * BLOCK + 100; // entries on some pages, and a block that is not whole
constexpr std::size_t TORN = DATA + 512;        // where an entry crosses a sector's end
using Arrays = std::vector<std::unique_ptr<char[]>>;

struct Lab;

// An operation under test. Its texts are those of its system calls in their order, when they fail: E stands for
// the error number, PATH for the file, "!" for one that is thrown always, and a text that is empty for no failure.
struct Operation {
    enum Kind { Creates, Opens, Hashes, Changes, Discards, Guards } kind;
    const char* name;
    std::size_t targetSize;   // which is what the target changes to before
    bool (*run)(Lab&);        // false when it has no result, because a failure was logged
    std::size_t first, count; // the blocks whose entries may change; the header may where there are none
    Lines texts;
};

struct Lab : MemoryStore {
    Lab()
        : MemoryStore(SIZE, PARTITION, BLOCK)
    {
        for (int i = 0; i < 500; i += 3) { // every third block is known
            store->update_hashes(PARTITION + i * BLOCK, target.bytes.data() + i * BLOCK, BLOCK);
        }
        image = file();
    }

    // The hash file as at the start, but for an entry torn where the operation wants it, opened where it wants that.
    void restart(const Operation& operation)
    {
        store.reset();
        std::filesystem::remove(path);
        Bytes bytes = image;
        std::fill_n(&bytes[TORN], operation.kind == Operation::Discards ? ENTRY : 0, static_cast<unsigned char>(0));
        writeFile(path, bytes);
        target.bytes = randomBytes(operation.targetSize, 1); // of equal bytes as far as it goes
        if (operation.kind != Operation::Creates && operation.kind != Operation::Opens) {
            reopen();
        }
    }

    Bytes aggregate() const
    {
        const auto supplier = [this](const auto& offsets, const auto& lengths) {
            auto arrays = MemoryTarget(target).supplier()(offsets, lengths);
            errno = E2BIG;
            spoil(arrays);
            return arrays;
        };
        return store->get_hash(PARTITION, static_cast<kelvane_buf_len_t>(target.bytes.size()), supplier);
    }

    bool answersRight() const
    {
        return aggregate() == aggregateDigest(target.bytes, BLOCK, 0, static_cast<int64_t>(target.bytes.size()));
    }

    // Whether all that the file had is there still, outside what the operation changes, and known entries are true.
    bool isTrue(const Operation& operation) const
    {
        const Bytes bytes = file();
        const std::size_t first = operation.count == 0 ? 0 : DATA + operation.first * ENTRY;
        const std::size_t end = operation.count == 0 ? DATA : first + operation.count * ENTRY;
        for (std::size_t i = 0; i < std::min(bytes.size(), image.size()); ++i) {
            if (bytes[i] != image[i] && (i < first || i >= end) && operation.kind != Operation::Creates) {
                return false;
            }
        }
        for (std::size_t i = 0; (i + 1) * BLOCK <= target.bytes.size() && DATA + (i + 1) * ENTRY <= bytes.size(); ++i) {
            const auto data = target.bytes.begin() + static_cast<std::ptrdiff_t>(i * BLOCK);
            const unsigned char* const entry = &bytes[DATA + i * ENTRY];
            if ((*entry & 1) != 0 && Bytes(entry + 1, entry + ENTRY) != digestOf(Bytes(data, data + BLOCK))) {
                return false;
            }
        }
        return true;
    }

    Bytes image;
    void (*spoil)(Arrays&) = [](Arrays&) {}; // what the data callback does to its result
};

template <bool DeleteFileOnError>
bool create(Lab& lab)
{
    const kelvane_size_t end = lab.target.endOffset();
    BlockHashStore::create(lab.path, Blake2dHashFunctionType, end, PARTITION, BLOCK, DeleteFileOnError);
    return true;
}

bool open(Lab& lab)
{
    lab.reopen();
    return lab.store != nullptr;
}

bool update(Lab& lab)
{
    lab.store->update_hashes(PARTITION + 70 * BLOCK + 5, lab.target.bytes.data() + 70 * BLOCK + 5, 80 * BLOCK);
    return true;
}

bool guardWrite(Lab& lab)
{
    return TargetWriteGuard(*lab.store, PARTITION, 9 * BLOCK).commit(lab.target.bytes.data()), true;
}

bool sync(Lab& lab)
{
    return lab.store->sync_to_disk() ? true : throw std::runtime_error("sync failed");
}

const Lines CREATE
    = {"error opening file for writing: E",   "!error in seek while trying to grow the file to 90112, errno = E",
       "!failed to write to block hash file", "failed to close fd while creating the block hash store: E",
       "!error opening file for writing",     "failed to seek to beginning of file to write header.: E",
       "failed to initialize header data: E", "failed to close fd while creating the block hash store: E"};
const Lines EDGES = {CREATE[0], CREATE[3], CREATE[4]}; // where a descriptor's time begins or ends
const Lines OPEN = {"failed to stat hash file: E", "failed to open file: PATH: E", "failed to read header: E"};

Lines openAndResize(const Lines& resize)
{
    Lines texts = OPEN;
    texts.insert(texts.end(), resize.begin(), resize.end());
    texts.insert(texts.end(), CREATE.begin() + 4, CREATE.end());
    texts.insert(texts.end(), {OPEN[0], "", OPEN[1], OPEN[2]}); // the descriptor is closed in between
    return texts;
}

const Lines GUARD
    = {"failed to write hash: 1048576: E", "!failed to sync hash file: E", "failed to write hash: 1048576: E"};
const Lines HASH = {"failed to read hash value: 1048576: E", "failed to write hash: 1048576: E"};
const Lines DISCARD = {"failed to read hash entry: 4591: E", "failed to clear hash entry: 4591: E",
                       "failed to read hash entry: 8188: E", "failed to read hash entry: 57325: E", ""};
const Lines GROW = {"!error in write while initting file region: E", "initFileRegion failed to sync hash file: E"};

bool (*const HASH_RANGE)(Lab&) = [](Lab& lab) { return !lab.aggregate().empty(); };
bool (*const INVALIDATE)(Lab&) = [](Lab& lab) { return lab.store->invalidate_hashes(PARTITION + 3, 50000), true; };
bool (*const DISCARD_TORN)(Lab&) = [](Lab& lab) { return lab.store->discard_torn_entries(), true; };

const Operation OPERATIONS[]
    = {{Operation::Creates, "create", SIZE, create<false>, 0, 500, CREATE},
       {Operation::Creates, "create or delete", SIZE, create<true>, 0, 500, CREATE},
       {Operation::Opens, "open", SIZE, open, 0, 0, OPEN},
       {Operation::Opens, "open and grow", 2 * SIZE, open, 0, 0, openAndResize(GROW)},
       {Operation::Opens, "open and shrink", SIZE / 3, open, 0, 0, openAndResize({"!failed to truncate file: E"})},
       {Operation::Hashes, "get_hash", SIZE, HASH_RANGE, 0, 500, HASH},
       {Operation::Changes, "update_hashes", SIZE, update, 70, 81, {"failed to write hash: 1084421: E"}},
       {Operation::Changes, "invalidate_hashes", SIZE, INVALIDATE, 0, 100, {"failed to write hash: 1048579: E"}},
       {Operation::Changes, "sync_to_disk", SIZE, sync, 0, 0, {"!sync failed"}},
       {Operation::Discards, "discard_torn_entries", SIZE, DISCARD_TORN, 15, 2, DISCARD},
       {Operation::Guards, "TargetWriteGuard", SIZE, guardWrite, 0, 9, GUARD}};

// One fault: the k-th call of a kind, or allocation, that the operation makes.
struct Injection {
    enum Kind { Error, Nothing, OneByte, Half, AllButOne, Allocation };

    Kind kind;
    int error;
    bool persistent;
    int k = 0;
    int position = 0;
    int fired = 0;

    void run(const std::function<void()>& operation)
    {
        if (kind == Allocation) {
            const FailingAllocation failing(k, fired);
            operation();
        } else {
            const CallHook hook([this](const CallRecord& call) { return outcome(call); });
            operation();
        }
    }

    Outcome outcome(const CallRecord& call)
    {
        const bool transfer = call.call == Call::ReadAt || call.call == Call::WriteAt || call.call == Call::Write;
        if (kind != Error && (!transfer || call.length < 2)) {
            return {};
        }
        const int current = position++;
        const bool enough = error == EINTR && fired == 20; // who repeats interrupted calls does so for ever
        if (current < k || (current > k && !persistent) || enough) {
            return {};
        }
        ++fired;
        const auto length = static_cast<ssize_t>(call.length);
        const ssize_t limits[] = {-1, 0, 1, length / 2, length - 1};
        return {error, limits[kind]};
    }
};

// How a text comes out of an operation.
Lines rendered(const Operation& operation, std::string text, const std::string& error, bool unwinding)
{
    if (text.empty()) {
        return {};
    }
    const bool direct = text[0] == '!';
    if (text.back() == 'E') {
        text.replace(text.size() - 1, 1, error);
    }
    if (direct || !unwinding) {
        return {"thrown: " + text.substr(direct)};
    }
    Lines lines = {"3 throwWithErrno: " + text};
    if (operation.kind == Operation::Opens || operation.kind == Operation::Hashes) {
        lines.push_back("thrown: empty");
    }
    return lines;
}

// What the failure of call number k gives, and perhaps that of all later ones.
Lines expectedLines(const Operation& operation, const Injection& injection, bool unwinding)
{
    const std::string error = std::to_string(injection.error);
    auto text = operation.texts.begin() + injection.k;
    text += injection.persistent && text->empty() && text + 1 != operation.texts.end() ? 1 : 0;
    Lines lines = rendered(operation, *text, error, unwinding);
    const auto edge = std::find_first_of(text, operation.texts.end(), EDGES.begin(), EDGES.end());
    if (injection.persistent && edge != text && edge != operation.texts.end() && *edge == CREATE[3]) {
        const auto thrown = std::find_if(lines.begin(), lines.end(), [](const auto& line) { return line[0] == 't'; });
        lines.insert(thrown, rendered(operation, CREATE[3], error, true)[0]); // the guard's close fails as well
    }
    return lines;
}

// Whether each line is one of the operation's texts, for faults that it may overcome.
bool areTextsOf(const Operation& operation, const Lines& lines)
{
    return std::all_of(lines.begin(), lines.end(), [&](const std::string& line) {
        const std::string text = std::regex_replace(line.substr(line.find(": ") + 2), std::regex("[0-9]+$"), "E");
        const auto isText = [&](const std::string& other) { return text == other || "!" + text == other; };
        return text == "empty" || std::any_of(operation.texts.begin(), operation.texts.end(), isText);
    });
}

bool linesAreRight(const Operation& operation, const Injection& injection, Lines lines, bool unwinding)
{
    std::erase_if(lines, [](const std::string& line) { return line[0] == '1'; });
    if (injection.fired == 0) {
        return lines.empty();
    }
    if (injection.kind == Injection::Allocation) { // none or the log line was lost, or it passes through
        return lines.empty() || lines == Lines {"thrown: std::bad_alloc"};
    }
    if (injection.error == 0 || injection.error == EINTR) {
        return areTextsOf(operation, lines);
    }
    return static_cast<std::size_t>(injection.k) < operation.texts.size()
        && lines == expectedLines(operation, injection, unwinding);
}

// Whether the store, and a fresh one, answer as if nothing had happened; a file that was cut short is refused.
bool recovers(Lab& lab, const Operation& operation)
{
    if (!std::filesystem::exists(lab.path)) {
        return operation.run == create<true>;
    }
    if (operation.kind == Operation::Discards) {
        lab.store->discard_torn_entries();
    }
    if (!lab.isTrue(operation) || (lab.store && !lab.answersRight())) {
        return false;
    }
    lab.store.reset();
    logOf([&] { lab.reopen(); });
    return lab.store ? lab.answersRight() : operation.kind == Operation::Creates || operation.targetSize != SIZE;
}

struct Figures {
    int points = 0, fired = 0, wrong = 0;

    void count(bool hasFired, bool good)
    {
        ++points;
        fired += hasFired ? 1 : 0;
        wrong += good ? 0 : 1;
    }
};

Lines linesOf(Lab& lab, const Operation& operation, bool unwinding, Injection& injection)
{
    const auto run = [&] {
        injection.run([&] {
            if (!operation.run(lab)) {
                throw std::runtime_error("empty");
            }
        });
    };
    errno = 0;
    Lines lines = unwinding ? logWhileUnwinding(run) : logOf(run);
    for (std::string& line : lines) {
        line = std::regex_replace(line, std::regex(lab.path), "PATH");
    }
    return lines;
}

// False when the operation ended before it came to the fault.
bool runPoint(Lab& lab, const Operation& operation, bool unwinding, Injection injection, Figures& figures)
{
    lab.restart(operation);
    const int descriptors = openDescriptors() - (lab.store ? 1 : 0);
    const Lines lines = linesOf(lab, operation, unwinding, injection);
    const bool isDeleted = std::any_of(lines.begin(), lines.end(), [](const auto& line) {
        return std::regex_match(line, std::regex("1 create: deleted hash file due to error: [0-9]+"));
    });
    const bool good = openDescriptors() - (lab.store ? 1 : 0) == descriptors
        && isDeleted == !std::filesystem::exists(lab.path) && linesAreRight(operation, injection, lines, unwinding)
        && recovers(lab, operation);
    figures.count(injection.fired != 0, good);
    EXPECT_TRUE(good) << operation.name << (unwinding ? " while unwinding" : "") << ", fault " << injection.kind
                      << " with error " << injection.error << (injection.persistent ? " from" : " in") << " call "
                      << injection.k << ": " << ::testing::PrintToString(lines);
    return injection.fired != 0;
}

void sweep(Lab& lab, const Operation& operation, bool unwinding, Figures& figures)
{
    std::vector<Injection> injections = {{Injection::Nothing, 0, false}, {Injection::Allocation, 0, false}};
    for (const bool persistent : {false, true}) {
        for (const int error : {EIO, ENOSPC, EINTR}) {
            injections.push_back({Injection::Error, error, persistent});
        }
        for (const auto kind : {Injection::OneByte, Injection::Half, Injection::AllButOne}) {
            injections.push_back({kind, 0, persistent});
        }
    }
    for (Injection& injection : injections) {
        while (runPoint(lab, operation, unwinding, injection, figures)) {
            ++injection.k;
        }
        if (injection.error == EIO) { // so that no system call is unknown
            EXPECT_EQ(static_cast<std::size_t>(injection.k), operation.texts.size()) << operation.name;
        }
        if (injection.kind == Injection::Allocation && operation.kind <= Operation::Hashes) {
            EXPECT_GT(injection.k, 1) << operation.name;
        }
    }
}

// Everything that the data callback can do wrong: the file stays as it is.
void sweepCallback(Lab& lab, bool unwinding, Figures& figures)
{
    const std::string missing = "expected more image data than was returned while hashing: E";
    const Operation& hashing = OPERATIONS[5];
    const std::pair<void (*)(Arrays&), std::string> cases[]
        = {{[](Arrays&) { throw std::logic_error("the disk is gone"); }, "!the disk is gone"},
           {[](Arrays& arrays) { arrays.clear(); }, missing},
           {[](Arrays& arrays) { arrays.push_back(std::make_unique<char[]>(BLOCK)); }, missing},
           {[](Arrays& arrays) { arrays.back().reset(); }, missing}};
    for (const auto& [spoil, text] : cases) {
        lab.restart(hashing);
        Injection none = {Injection::Nothing, 0, false, 99};
        const auto harmless = std::exchange(lab.spoil, spoil);
        const Lines lines = linesOf(lab, hashing, unwinding, none);
        lab.spoil = harmless;
        const bool good = lines == rendered(hashing, text, std::to_string(E2BIG), unwinding) && lab.file() == lab.image
            && recovers(lab, hashing);
        EXPECT_TRUE(good) << text << ::testing::PrintToString(lines);
        figures.count(true, good);
    }
}

class FaultSweep : public ::testing::TestWithParam<bool> { };

TEST_P(FaultSweep, LeavesNothingWrong)
{
    const bool unwinding = GetParam();
    Figures figures;
    Lab lab;
    for (const Operation& operation : OPERATIONS) {
        if (operation.kind != Operation::Guards || !unwinding) {
            sweep(lab, operation, unwinding, figures);
        }
    }
    sweepCallback(lab, unwinding, figures);
    std::cout << "fault sweep" << (unwinding ? " while unwinding" : "") << ": " << figures.points << " points, "
              << figures.fired << " fired, " << figures.wrong << " wrong\n";
    if (unwinding) {
        lab.restart(OPERATIONS[5]);
        EXPECT_EQ(logWhileUnwinding([&] { guardWrite(lab); }),
                  Lines {"thrown: cannot guard a target write while an exception propagates"});
        EXPECT_EQ(lab.file(), lab.image);
    }
}

INSTANTIATE_TEST_SUITE_P(Unwinding, FaultSweep, ::testing::Bool());

} // namespace
} // namespace kelvane::testing
