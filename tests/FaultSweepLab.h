// What the fault sweep runs: a store on a target, its operations, and the text of each of their failures.
#pragma once

#include <cerrno>

#include "Support.h"
#include "TargetWriteGuard.h"

namespace kelvane::testing {

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

enum Kind { Creates, Opens, Recalls, Hashes, Updates, Checks, Changes, Discards, Guards };

// An operation under test. Its texts are those of its system calls in their order, when they fail: E stands for
// the error number, PATH for the file, "!" for one that is thrown always, and a text that is empty for no failure.
struct Operation {
    Kind kind;
    const char* name;
    int64_t targetSize; // which is what the target changes to before
    Run run;
    int64_t offset, length; // in the target; where empty, the header may change, else these entries
    Lines texts;
    bool usesSource = false;

    bool isHashing() const { return kind == Recalls || kind == Hashes; }
    bool isStoring() const { return kind == Hashes || kind == Updates || kind == Changes; }
    bool usesHash() const { return isHashing() || kind == Updates || kind == Checks || kind == Guards; }
    bool hasResult() const { return kind == Opens || isHashing() || usesSource; }
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

    // Runs an operation with a source on the target.
    template <class Use>
    void lend(Use use)
    {
        struct Source : LendingTarget {
            explicit Source(Lab& owner)
                : LendingTarget(owner.target.bytes, PARTITION, [](int64_t length) { return length; })
                , lab(owner)
            {
            }
            LentData lend(kelvane_off_t offset, kelvane_buf_len_t length) override
            {
                ++lab.target.calls;
                return lab.spoilLent != nullptr ? lab.spoilLent(length) : LendingTarget::lend(offset, length);
            }
            void returned() override
            {
                LendingTarget::returned();
                lab.losesData ? throw std::runtime_error("the data was lost") : void();
            }
            Lab& lab;
        } source(*this);
        use(source);
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

    Bytes image, done, result;                       // the hash file before and after an operation, and what it hashed
    void (*spoil)(Arrays&) = nullptr;                // what the data callback does to its result
    LentData (*spoilLent)(int64_t length) = nullptr; // what a source does instead of lending
    bool losesData = false;
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
constexpr Run HASH_RANGE = [](Lab& lab, int64_t offset, int64_t length) {
    lab.lend([&](TargetSource& source) { lab.result = lab.store->hash_range(PARTITION + offset, length, source); });
};
constexpr Run LEARN = [](Lab& lab, int64_t offset, int64_t length) {
    lab.lend([&](TargetSource& source) {
        lab.store->learn_hashes(PARTITION + offset, length, source) ? void() : throw std::runtime_error("empty");
    });
};
constexpr Run FIND_WRONG = [](Lab& lab, int64_t offset, int64_t length) {
    lab.lend([&](TargetSource& source) {
        const auto onWrong = [](auto, auto) { throw std::runtime_error("there is none"); };
        lab.store->find_wrong_hashes(PARTITION + offset, length, source, onWrong) ? void()
                                                                                  : throw std::runtime_error("empty");
    });
};
constexpr Run ZERO
    = [](Lab& lab, int64_t offset, int64_t length) { lab.store->store_hashes_of_zeros(PARTITION + offset, length); };
constexpr Run STORE = [](Lab& lab, int64_t offset, int64_t length) {
    const Bytes hash = digestOf(Bytes(static_cast<std::size_t>(BLOCK)));
    Bytes hashes;
    for (int64_t i = 0; i < length / BLOCK; ++i) {
        hashes.insert(hashes.end(), hash.begin(), hash.end());
    }
    lab.store->store_hashes(PARTITION + offset, length, hashes.data());
};
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
const Lines LENDING = {"failed to read hash entry: 4096: E", HASHING[1]};
const std::string LOOKING_AT_KNOWN = "failed to read hash entry: 13996: E";
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
       {Hashes, "hash_range", SIZE, HASH_RANGE, 0, SIZE, LENDING, true},
       {Hashes, "hash_range of a part of a block", SIZE, HASH_RANGE, BLOCK + 5, 100, {}, true},
       {Recalls, "hash_range of known blocks", SIZE, HASH_RANGE, KNOWN, 40 * BLOCK, {LOOKING_AT_KNOWN}},
       {Updates, "learn_hashes", SIZE, LEARN, 0, SIZE, LENDING, true},
       {Checks, "find_wrong_hashes", SIZE, FIND_WRONG, KNOWN, 40 * BLOCK, {LOOKING_AT_KNOWN}, true},
       {Recalls, "get_hash of a buffer", SIZE, HASH_BUFFER, BLOCK, BLOCK, {}},
       {Updates, "update_hashes", SIZE, UPDATE, 70 * BLOCK + 5, 150 * BLOCK, {"failed to write hash: 1084421: E"}},
       {Changes, "invalidate_hashes", SIZE, INVALIDATE, 3, 50000, {"failed to write hash: 1048579: E"}},
       {Updates, "store_hashes_of_zeros", SIZE, ZERO, ZEROS + 2 * BLOCK + 5, 20 * BLOCK, {ZEROING}},
       {Changes, "store_hashes", SIZE, STORE, ZEROS + 2 * BLOCK + 5, 20 * BLOCK, {ZEROING}},
       {Changes, "for_each_unknown_range", SIZE, UNKNOWN, 0, SIZE, {"failed to read hash entry: 4096: E"}},
       {Changes, "sync_to_disk", SIZE, SYNC, 0, 0, {"!sync failed"}},
       {Discards, "discard_torn_entries", SIZE, DISCARD, 15 * BLOCK, 2 * BLOCK, DISCARDING},
       {Guards, "TargetWriteGuard", SIZE, GUARD, 0, 9 * BLOCK, GUARDING}};

// Everything that a source can do wrong, and how the text for it begins; last, that it loses what it lent.
const std::string ELSE = "!the source lent something else than was wanted at 1";
const std::pair<LentData (*)(int64_t), std::string> LENT_SPOILS[]
    = {{[](int64_t) -> LentData { throw std::logic_error("the disk is gone"); }, "!the disk is gone"},
       {[](int64_t length) { return LentData(nullptr, length); }, ELSE},
       {[](int64_t length) { return LentData::zeros(length + 1); }, ELSE},
       {[](int64_t) { return LentData("", 0); }, ELSE},
       {nullptr, "!the data was lost"}};

// Everything that the data callback can do wrong, and the text for it.
const std::string MISSING = "expected more image data than was returned while hashing: E";
const std::pair<void (*)(Arrays&), std::string> SPOILS[]
    = {{[](Arrays&) { throw std::logic_error("the disk is gone"); }, "!the disk is gone"},
       {[](Arrays& arrays) { arrays.clear(); }, MISSING},
       {[](Arrays& arrays) { arrays.push_back(std::make_unique<char[]>(BLOCK)); }, MISSING},
       {[](Arrays& arrays) { arrays.back().reset(); }, MISSING}};

} // namespace kelvane::testing
