// Every system call, allocation and hash and the data callback of every operation fail, in every way that they can:
// the text is the documented one, nothing leaks, no entry lies or changes outside the operation's range, and
// both the same store and a fresh one answer right once the fault is gone.

#include <cerrno>
#include <iostream>
#include <regex>

#include "Allocations.h"
#include "FaultSweepLab.h"
#include "SystemCalls.h"

namespace kelvane::testing {

namespace {

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
    if (operation.hasResult()) {
        lines.push_back("thrown: empty");
    }
    return lines;
}

std::string textOfHash(const Operation& operation, const Injection& injection)
{
    return operation.run == HASH_BUFFER                 ? "empty"
        : injection.isHashOfHashes()                    ? "failed to hash aggregate hashes"
        : operation.isHashing() || operation.usesSource ? "failed to generate block hash"
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
    if (injection.kind == Injection::Callback && operation.usesSource) {
        const Lines expected = rendered(operation, LENT_SPOILS[injection.k].second, "", unwinding);
        return lines.size() == 1 && lines[0].starts_with(expected[0]);
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
    const auto k = static_cast<std::size_t>(injection.k);
    const bool spoils = injection.kind == Injection::Callback
        && k < (operation.usesSource ? std::size(LENT_SPOILS) : std::size(SPOILS));
    if (spoils && operation.usesSource) {
        lab.spoilLent = LENT_SPOILS[k].first;
        lab.losesData = lab.spoilLent == nullptr;
    } else if (spoils) {
        lab.spoil = SPOILS[k].first;
    }
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
    lab.spoilLent = nullptr;
    lab.losesData = false;
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
