// Every system call, allocation and hash and the data callback of every operation fail, in every way that they can:
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
using Arrays = std::vector<std::unique_ptr<char[]>>;

constexpr int64_t BLOCK = 512;
constexpr kelvane_off_t PARTITION = 1048576;
constexpr int64_t SIZE = 500 * BLOCK + 100; // entries on some pages, and a block that is not whole
constexpr int64_t KNOWN = 300 * BLOCK;      // from where on 42 blocks are known; of others, each third is
constexpr int64_t AHEAD = 124 * BLOCK;      // the block whose entry crosses the end of the first page
constexpr int64_t ZEROS = 400 * BLOCK;      // from where on the target has 40 blocks of zeros
constexpr std::size_t TORN = DATA + 512;    // where an entry crosses a sector's end

struct Lab;
using Run = void (*)(Lab&, int64_t offset, int64_t length);

enum Kind { Creates, Opens, Recalls, Hashes, Updates, Changes, Discards, Guards };

// An operation under test. Its texts are those of its system calls in their order, when they fail: E stands for
// the error number, PATH for the file, "!" for one that is thrown always, and a text that is empty for no failure.
struct Operation {
    Kind kind;
    const char* name;
    int64_t targetSize; // which is what the target changes to before
    Run run;
    int64_t offset, length; // in the target; where empty, the header may change, else these entries
    Lines texts;

    bool isHashing() const { return kind == Recalls || kind == Hashes; }
    bool isStoring() const { return kind == Hashes || kind == Updates || kind == Changes; }
    bool usesHash() const { return isHashing() || kind == Updates || kind == Guards; }
};

struct Lab : MemoryStore {
    Lab()
        : MemoryStore(SIZE, PARTITION, BLOCK)
    {
        target.bytes = content(SIZE);
        for (int64_t block = 0; block < 500; block += 300 <= block && block < 342 ? 1 : 3) {
            store->update_hashes(PARTITION + block * BLOCK, at(block * BLOCK), BLOCK);
        }
        image = file();
    }

    static Bytes content(int64_t size) // equal as far as it goes
    {
        Bytes bytes = randomBytes(static_cast<std::size_t>(size), 1);
        const auto start = bytes.begin() + std::min(size, ZEROS);
        std::fill(start, start + std::min(size - (start - bytes.begin()), 40 * BLOCK), static_cast<unsigned char>(0));
        return bytes;
    }

    unsigned char* at(int64_t offset) { return target.bytes.data() + offset; }

    // The hash file as at the start, but for an entry torn where the operation wants it, opened where it wants that.
    void restart(const Operation& operation)
    {
        store.reset();
        std::filesystem::remove(path);
        Bytes bytes = image;
        std::fill_n(&bytes[TORN], operation.kind == Discards ? ENTRY : 0, static_cast<unsigned char>(0));
        writeFile(path, bytes);
        target.bytes = content(operation.targetSize);
        target.calls = 0;
        result.clear();
        if (operation.kind != Creates && operation.kind != Opens) {
            reopen();
        }
    }

    void create(bool deleteFileOnError) const
    {
        BlockHashStore::create(path, Blake2dHashFunctionType, target.endOffset(), PARTITION, BLOCK, deleteFileOnError);
    }

    void hash(int64_t offset, int64_t length)
    {
        const auto supplier = [this](const auto& offsets, const auto& lengths) {
            auto arrays = target.supplier()(offsets, lengths);
            spoil != nullptr ? spoil(arrays) : void();
            errno = E2BIG;
            return arrays;
        };
        result = store->get_hash(PARTITION + offset, length, supplier);
    }

    // Whether what was hashed last is what it must be. The hash of one block is hashed once more to be that of a range.
    bool isRight(int64_t offset, int64_t length) const
    {
        const Bytes right = aggregateDigest(target.bytes, BLOCK, offset, length);
        return result == right || digestOf(result) == right;
    }

    bool answersRight()
    {
        const auto size = static_cast<int64_t>(target.bytes.size());
        hash(0, size);
        return isRight(0, size);
    }

    // Whether all that the file had is there still, outside what the operation changes, and known entries are true.
    bool isTrue(const Operation& operation) const
    {
        const Bytes bytes = file();
        const auto entryWith = [](int64_t offset) { return entryAt(static_cast<std::size_t>(offset / BLOCK)); };
        const std::size_t first = operation.length == 0 ? 0 : entryWith(operation.offset);
        const std::size_t end
            = operation.length == 0 ? DATA : entryWith(operation.offset + operation.length - 1) + ENTRY;
        for (std::size_t i = 0; i < std::min(bytes.size(), image.size()); ++i) {
            if (bytes[i] != image[i] && (i < first || i >= end) && operation.kind != Creates) {
                return false;
            }
        }
        return !hasWrongEntry(bytes, target.bytes, BLOCK);
    }

    Bytes image, done, result;        // the hash file before and after an operation, and what it hashed
    void (*spoil)(Arrays&) = nullptr; // what the data callback does to its result
};

constexpr Run CREATE = [](Lab& lab, int64_t, int64_t) { lab.create(false); };
constexpr Run CREATE_OR_DELETE = [](Lab& lab, int64_t, int64_t) { lab.create(true); };
constexpr Run OPEN = [](Lab& lab, int64_t, int64_t) { lab.reopen(); };
constexpr Run HASH = [](Lab& lab, int64_t offset, int64_t length) { lab.hash(offset, length); };
constexpr Run HASH_AFTER_KNOWN = [](Lab& lab, int64_t offset, int64_t length) {
    lab.hash(offset - length, length);
    std::exchange(lab.result, {}).empty() ? void() : lab.hash(offset, length);
};
constexpr Run HASH_BUFFER
    = [](Lab& lab, int64_t offset, int64_t length) { lab.result = lab.store->get_hash(lab.at(offset), length); };
constexpr Run UPDATE = [](Lab& lab, int64_t offset, int64_t length) {
    lab.store->update_hashes(PARTITION + offset, lab.at(offset), length);
};
constexpr Run INVALIDATE
    = [](Lab& lab, int64_t offset, int64_t length) { lab.store->invalidate_hashes(PARTITION + offset, length); };
constexpr Run ZERO
    = [](Lab& lab, int64_t offset, int64_t length) { lab.store->store_hashes_of_zeros(PARTITION + offset, length); };
constexpr Run UNKNOWN = [](Lab& lab, int64_t offset, int64_t length) {
    lab.store->for_each_unknown_range(PARTITION + offset, length, [](auto, auto) {});
};
constexpr Run SYNC
    = [](Lab& lab, int64_t, int64_t) { lab.store->sync_to_disk() ? void() : throw std::runtime_error("sync failed"); };
constexpr Run DISCARD = [](Lab& lab, int64_t, int64_t) { lab.store->discard_torn_entries(); };
constexpr Run GUARD = [](Lab& lab, int64_t offset, int64_t length) {
    TargetWriteGuard(*lab.store, PARTITION + offset, length).commit(lab.at(offset));
};

const Lines CREATING
    = {"error opening file for writing: E",   "!error in seek while trying to grow the file to 90112, errno = E",
       "!failed to write to block hash file", "failed to close fd while creating the block hash store: E",
       "!error opening file for writing",     "failed to seek to beginning of file to write header.: E",
       "failed to initialize header data: E", "failed to close fd while creating the block hash store: E"};
const Lines EDGES = {CREATING[0], CREATING[3], CREATING[4]}; // where a descriptor's time begins or ends
const Lines OPENING = {"failed to stat hash file: E", "failed to open file: PATH: E", "failed to read header: E"};

Lines resizing(const Lines& lines)
{
    Lines texts = OPENING;
    texts.insert(texts.end(), lines.begin(), lines.end());
    texts.insert(texts.end(), CREATING.begin() + 4, CREATING.end());
    texts.insert(texts.end(), {OPENING[0], "", OPENING[1], OPENING[2]}); // the descriptor is closed in between
    return texts;
}

const Lines GROWING
    = resizing({"!error in write while initting file region: E", "initFileRegion failed to sync hash file: E"});
const Lines SHRINKING = resizing({"!failed to truncate file: E"});
const Lines DISCARDING = {"failed to read hash entry: 4591: E", "failed to clear hash entry: 4591: E",
                          "failed to read hash entry: 8188: E", "failed to read hash entry: 57325: E", ""};

const Lines HASHING = {"failed to read hash value: 1048576: E", "failed to write hash: 1048576: E"};
const Lines READING_AHEAD = {"failed to read hash value: 1111552: E", "failed to read hash value: 1112064: E",
                             "failed to write hash: 1112064: E"};
const std::string ZEROING = "failed to write hash: 1254405: E";
const Lines GUARDING = {HASHING[1], "!failed to sync hash file: E", HASHING[1]};

const Operation OPERATIONS[]
    = {{Creates, "create", SIZE, CREATE, 0, SIZE, CREATING},
       {Creates, "create or delete", SIZE, CREATE_OR_DELETE, 0, SIZE, CREATING},
       {Opens, "open", SIZE, OPEN, 0, 0, OPENING},
       {Opens, "open and grow", 2 * SIZE, OPEN, 0, 0, GROWING},
       {Opens, "open and shrink", SIZE / 3, OPEN, 0, 0, SHRINKING},
       {Hashes, "get_hash", SIZE, HASH, 0, SIZE, HASHING},
       {Hashes, "get_hash of a part of a block", SIZE, HASH, BLOCK + 5, 100, {}},
       {Hashes, "get_hash that reads ahead", SIZE, HASH_AFTER_KNOWN, AHEAD, BLOCK, READING_AHEAD},
       {Recalls, "get_hash of known blocks", SIZE, HASH, KNOWN, 40 * BLOCK, {"failed to read hash value: 1202176: E"}},
       {Recalls, "get_hash of a buffer", SIZE, HASH_BUFFER, BLOCK, BLOCK, {}},
       {Updates, "update_hashes", SIZE, UPDATE, 70 * BLOCK + 5, 150 * BLOCK, {"failed to write hash: 1084421: E"}},
       {Changes, "invalidate_hashes", SIZE, INVALIDATE, 3, 50000, {"failed to write hash: 1048579: E"}},
       {Updates, "store_hashes_of_zeros", SIZE, ZERO, ZEROS + 2 * BLOCK + 5, 20 * BLOCK, {ZEROING, ZEROING, ZEROING}},
       {Changes, "for_each_unknown_range", SIZE, UNKNOWN, 0, SIZE, {"failed to read hash entry: 4096: E"}},
       {Changes, "sync_to_disk", SIZE, SYNC, 0, 0, {"!sync failed"}},
       {Discards, "discard_torn_entries", SIZE, DISCARD, 15 * BLOCK, 2 * BLOCK, DISCARDING},
       {Guards, "TargetWriteGuard", SIZE, GUARD, 0, 9 * BLOCK, GUARDING}};

// Everything that the data callback can do wrong, and the text for it.
const std::string MISSING = "expected more image data than was returned while hashing: E";
const std::pair<void (*)(Arrays&), std::string> SPOILS[]
    = {{[](Arrays&) { throw std::logic_error("the disk is gone"); }, "!the disk is gone"},
       {[](Arrays& arrays) { arrays.clear(); }, MISSING},
       {[](Arrays& arrays) { arrays.push_back(std::make_unique<char[]>(BLOCK)); }, MISSING},
       {[](Arrays& arrays) { arrays.back().reset(); }, MISSING}};

// One fault: the k-th call of a kind, allocation or hash that the operation makes, or the k-th one of the callback.
struct Injection {
    enum Kind { Error, Nothing, OneByte, Half, AllButOne, HalfThenError, Allocation, Callback, Hash };

    Kind kind;
    int error;
    bool persistent;
    int k = 0;
    int position = 0, calls = 0; // of those that can fail so, and of all
    int fired = 0, first = -1;   // the first call that it hit
    Call firstCall = Call::Open;
    int callsAfter = 0; // that do more than clean up
    int64_t hashed = 0; // the length of what could not be hashed

    bool isHashOfHashes() const { return kind == Hash && hashed != BLOCK; }

    void run(const std::function<void()>& operation)
    {
        const CallHook hook([this](const CallRecord& call) { return outcome(call); });
        const FailingAllocation failing(kind == Allocation ? k : -1);
        operation();
    }

    // Closing, and calls that nothing interrupts, are not repeated, nor are the writes of a creation.
    bool isOvercome() const
    {
        const bool repeated = firstCall == Call::Open || firstCall == Call::Fsync || firstCall == Call::SyncFileRange
            || firstCall == Call::Truncate;
        const bool transfer = firstCall == Call::ReadAt || firstCall == Call::WriteAt;
        return error == EINTR ? repeated || transfer : error == 0 && kind != Nothing && transfer;
    }

    Outcome outcome(const CallRecord& call)
    {
        callsAfter
            += fired > (kind == HalfThenError ? 1 : 0) && call.call != Call::Close && call.call != Call::Unlink ? 1 : 0;
        const int index = calls++;
        const bool transfer = call.call == Call::ReadAt || call.call == Call::WriteAt || call.call == Call::Write;
        const bool shortens = transfer && call.length > 1 && !(persistent && call.call == Call::Write)
            && !(kind == HalfThenError && call.call == Call::ReadAt);
        if (kind > HalfThenError || (kind != Error && !shortens)) {
            return {};
        }
        const int current = position++;
        const bool enough = error == EINTR && (fired == 20 || (fired > 0 && !isOvercome())); // it could go on for ever
        const bool continued = persistent || (kind == HalfThenError && fired < 2);
        if (current < k || (current > k && !continued) || enough) {
            return {};
        }
        if (fired++ == 0) {
            first = index;
            firstCall = call.call;
        }
        const auto length = static_cast<ssize_t>(call.length);
        const ssize_t limits[] = {-1, 0, 1, length / 2, length - 1, length / 2};
        return {kind == HalfThenError && fired == 1 ? 0 : error, limits[kind]};
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
    if (operation.kind == Opens || operation.isHashing()) {
        lines.push_back("thrown: empty");
    }
    return lines;
}

std::string textOfHash(const Operation& operation, const Injection& injection)
{
    return operation.run == HASH_BUFFER ? "empty"
        : injection.isHashOfHashes()    ? "failed to hash aggregate hashes"
        : operation.isHashing()         ? "failed to generate block hash"
                                        : "failed to compute hash from data";
}

// A failed closing that may only be logged changes nothing else.
bool goesOn(const std::string& text, bool unwinding)
{
    return unwinding && text == CREATING[3];
}

// What the failure of a call gives, and perhaps that of all later ones.
Lines expectedLines(const Operation& operation, const Injection& injection, bool unwinding, std::size_t call)
{
    if (injection.isOvercome()) {
        return {};
    }
    const bool persistent = injection.persistent && injection.error != EINTR;
    const std::string error = std::to_string(injection.error);
    call += persistent && operation.texts[call].empty() && call + 1 < operation.texts.size() ? 1 : 0;
    const auto text = operation.texts.begin() + static_cast<std::ptrdiff_t>(call);
    Lines lines = rendered(operation, *text, error, unwinding);
    const auto edge = std::find_first_of(text, operation.texts.end(), EDGES.begin(), EDGES.end());
    if (goesOn(*text, unwinding)) {
        lines.resize(1);
        if (persistent && text + 1 != operation.texts.end()) {
            const Lines rest = expectedLines(operation, injection, unwinding, call + 1);
            lines.insert(lines.end(), rest.begin(), rest.end());
        }
    } else if (persistent && injection.kind == Injection::Error && edge != text && edge != operation.texts.end()
               && *edge == CREATING[3]) {
        const auto thrown = std::find_if(lines.begin(), lines.end(), [](const auto& line) { return line[0] == 't'; });
        lines.insert(thrown, rendered(operation, CREATING[3], error, true)[0]); // the guard's close fails as well
    }
    return lines;
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
    if (injection.kind == Injection::Callback) {
        return lines == rendered(operation, SPOILS[injection.k].second, std::to_string(E2BIG), unwinding);
    }
    if (injection.kind == Injection::Hash) {
        return lines == Lines {"thrown: " + textOfHash(operation, injection)};
    }
    const auto first = static_cast<std::size_t>(injection.first);
    if (first >= operation.texts.size()) {
        return false;
    }
    for (std::string& line : lines) { // which number a failure without an error has is open
        line = injection.kind == Injection::Error
            ? line
            : std::regex_replace(line, std::regex("[0-9]+$"), std::to_string(injection.error));
    }
    const int callsAfter = operation.kind == Guards && injection.first == 2 ? 2 : 0; // unknown again, and synced
    const bool stops = lines.empty() || injection.callsAfter == callsAfter || operation.texts[first].empty()
        || goesOn(operation.texts[first], unwinding);
    return stops && lines == expectedLines(operation, injection, unwinding, first);
}

// Whether the store, and a fresh one, answer as if nothing had happened; a file that was cut short is refused.
bool recovers(Lab& lab, const Operation& operation, const Injection& injection, bool succeeded)
{
    if (!std::filesystem::exists(lab.path)) {
        return operation.run == CREATE_OR_DELETE;
    }
    if (operation.kind == Discards) {
        lab.store->discard_torn_entries();
    } else if (injection.kind == Injection::HalfThenError && operation.isStoring()) {
        lab.store->invalidate_hashes(PARTITION + operation.offset, operation.length); // half an entry may be known
    }
    if (!lab.isTrue(operation) || (lab.store && !lab.answersRight())) {
        return false;
    }
    lab.store.reset();
    logOf([&] { lab.reopen(); });
    return lab.store ? lab.answersRight() : !succeeded && (operation.kind == Creates || operation.targetSize != SIZE);
}

struct Figures {
    int points = 0, fired = 0, wrong = 0;
};

Lines linesOf(Lab& lab, const Operation& operation, bool unwinding, Injection& injection)
{
    const auto run = [&] {
        injection.run([&] {
            operation.run(lab, operation.offset, operation.length);
            if (operation.kind == Opens ? !lab.store : operation.isHashing() && lab.result.empty()) {
                throw std::runtime_error("empty"); // as no failure may end while unwinding
            }
        });
    };
    const bool spoils
        = injection.kind == Injection::Callback && static_cast<std::size_t>(injection.k) < std::size(SPOILS);
    lab.spoil = spoils ? SPOILS[injection.k].first : nullptr;
    std::unique_ptr<IHashFunction> hash;
    if (injection.kind == Injection::Hash && lab.store) {
        hash = std::exchange(Peer::hashFunction(*lab.store), std::make_unique<FailingHash>(injection.k, 0));
    }
    Lines lines = unwinding ? logWhileUnwinding(run) : logOf(run);
    if (spoils) {
        injection.fired += lab.target.calls;
    } else if (injection.kind == Injection::Allocation) {
        injection.fired += FailingAllocation::hasFailed() ? 1 : 0;
    } else if (hash) {
        std::swap(hash, Peer::hashFunction(*lab.store));
        injection.hashed = static_cast<const FailingHash&>(*hash).lengthOfFailure;
        injection.fired += injection.hashed != 0 ? 1 : 0;
    }
    lab.spoil = nullptr;
    for (std::string& line : lines) {
        line = std::regex_replace(line, std::regex(lab.path), "PATH");
    }
    return lines;
}

// Where the data callback or a hash fails, nothing is stored yet; but the last hash, of several, is that of what is.
bool hasStoredWhatItMust(const Lab& lab, const Operation& operation, const Injection& injection)
{
    const bool isStored = injection.isHashOfHashes() && injection.k > 0;
    return injection.kind < Injection::Callback || injection.fired == 0 || operation.kind == Guards
        || lab.file() == (isStored ? lab.done : lab.image);
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
    const bool succeeded = std::all_of(lines.begin(), lines.end(), [&](const std::string& line) {
        return line[0] == '1' || (unwinding && line.find(CREATING[3].substr(0, 40)) != std::string::npos);
    });
    const bool good = openDescriptors() - (lab.store ? 1 : 0) == descriptors
        && (lab.result.empty() || lab.isRight(operation.offset, operation.length))
        && isDeleted == !std::filesystem::exists(lab.path) && linesAreRight(operation, injection, lines, unwinding)
        && hasStoredWhatItMust(lab, operation, injection)
        && ((unwinding && injection.kind == Injection::Allocation) || !succeeded || lab.file() == lab.done)
        && recovers(lab, operation, injection, succeeded && !unwinding);
    ++figures.points;
    figures.fired += injection.fired != 0 ? 1 : 0;
    figures.wrong += good ? 0 : 1;
    EXPECT_TRUE(good) << operation.name << (unwinding ? " while unwinding" : "") << ", fault " << injection.kind
                      << " with error " << injection.error << (injection.persistent ? " from" : " in") << " call "
                      << injection.k << ": " << ::testing::PrintToString(lines);
    return injection.fired != 0;
}

void sweep(Lab& lab, const Operation& operation, bool unwinding, Figures& figures)
{
    std::vector<Injection> injections = {{Injection::Nothing, 0, false},
                                         {Injection::Allocation, 0, false},
                                         {Injection::Callback, 0, false},
                                         {Injection::Hash, 0, false}};
    for (const bool persistent : {false, true}) {
        for (const int error : {EIO, ENOSPC, EINTR}) {
            injections.push_back({Injection::Error, error, persistent});
        }
        for (const auto kind : {Injection::OneByte, Injection::Half, Injection::AllButOne}) {
            injections.push_back({kind, 0, persistent});
        }
    }
    injections.push_back({Injection::HalfThenError, ENOSPC, false});
    lab.restart(operation);
    CallCounts calls;
    logOf([&] {
        const CallCounter counter;
        operation.run(lab, operation.offset, operation.length);
        calls = counter.counts();
    });
    lab.done = lab.file();
    for (Injection& injection : injections) {
        while (runPoint(lab, operation, unwinding, injection, figures)) {
            ++injection.k;
        }
        if (injection.error == EIO) { // so that each text belongs to a call
            EXPECT_EQ(static_cast<std::size_t>(injection.k), operation.texts.size()) << operation.name;
        }
        if (Injection::Error < injection.kind && injection.kind < Injection::Allocation) { // each transfer was short
            EXPECT_EQ(static_cast<std::size_t>(injection.k),
                      calls[Call::WriteAt] + (injection.persistent ? 0 : calls[Call::Write])
                          + (injection.kind == Injection::HalfThenError ? 0 : calls[Call::ReadAt]))
                << operation.name;
        } else if (injection.kind == Injection::Allocation && operation.kind <= Hashes) {
            EXPECT_GT(injection.k, 0) << operation.name;
        } else if (injection.kind == Injection::Hash) {
            EXPECT_EQ(injection.k > 0, operation.usesHash()) << operation.name;
        }
    }
}

class FaultSweepTest : public ::testing::TestWithParam<bool> { };

TEST_P(FaultSweepTest, LeavesNothingWrong)
{
    const bool unwinding = GetParam();
    Figures figures;
    Lab lab;
    for (const Operation& operation : OPERATIONS) {
        if (operation.kind != Guards || !unwinding) {
            sweep(lab, operation, unwinding, figures);
        }
    }
    std::cout << "fault sweep" << (unwinding ? " while unwinding" : "") << ": " << figures.points << " points, "
              << figures.fired << " fired, " << figures.wrong << " wrong\n";
}

INSTANTIATE_TEST_SUITE_P(, FaultSweepTest, ::testing::Bool(),
                         [](const auto& instance) { return instance.param ? "Unwinding" : "Plain"; });

} // namespace
} // namespace kelvane::testing
