// The block hash store: one hash for every fixed-size block of a target, kept in a file of its own.
//
// Offsets. A target starts at `partitionOffset` on the device that holds it. All offsets that callers
// give and get are external: positions on that device, in bytes. Blocks are counted from the partition
// offset on. The target size that `create` and `open` take is the end of the target in external offsets:
// for S bytes that start at partition offset P, pass P + S.
//
// Threads. A store belongs to one thread at a time, and so does a hash file while it is created or its
// size is adapted. Stores on different files share nothing. A data callback or a source runs on the calling
// thread and must not use the store that called it: operations on entries then end with "the store is in use by its own
// data callback". Metric callbacks must not use it either.
//
// Failures. Every failure is a thrown std::runtime_error with the text given below; "(errno)" stands for
// ": " and the error number in decimal, and such a failure is a std::system_error, whose code() has that number. Failed
// allocations and whatever a callback throws pass through unchanged. After a failure the store can be used as before,
// unless moved from. While another exception is propagating (a destructor uses the store), a failure marked (errno) is
// logged instead of thrown: `create`, `update_hashes`, `store_hashes_of_zeros`, `invalidate_hashes` and
// `for_each_unknown_range` then just return, `open` returns an empty pointer, `get_hash` and `hash_range` an empty
// value, `learn_hashes` and `find_wrong_hashes` false, `discard_torn_entries` 0, and nothing more is read or written by
// that call. A failed close alone changes nothing else then: the call goes on after the log line.
//
// Memory. get_hash, update_hashes and invalidate_hashes take one hash entry (33 bytes) per block of the range, kept for
// the next one, and while get_hash lasts at most 56 bytes per stretch of unknown blocks and what the callback hands
// over. Hand huge ranges over in slices, or use the operations that take a source: they go through ranges of any length
// in pieces. The target's size plays no part.
//
// Durability. Nothing but `create`, the adapting part of `open` and `sync_to_disk` waits for the disk.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#if __cplusplus >= 202002L
#include <span>
#endif
#include <string>
#include <string_view>
#include <vector>

#include "Export.h"
#include "HashFileFault.h"
#include "HashFunctionType.h"
#include "IHashFunction.h"
#include "Protocol.h"
#include "SimpleCachedReader.h"
#include "Types.h"

namespace kelvane {

class TargetSource;

// An open hash file. What holds for all operations is said at the top of BlockHashStore.h.
class KELVANE_EXPORT BlockHashStore {
public:
    using HashValue = IHashFunction::HashValue; // one digest

    // Supplies target data: for every i, lengths[i] bytes of the target from the external offset
    // offsets[i] on. The result holds one array per range, in the same order, each at least as long as
    // asked for; the store releases them when the request is done. The ranges ascend and do not touch.
    using DataRequiredFunc = std::function<std::vector<std::unique_ptr<char[]>>(
        const std::vector<kelvane_off_t>& offsets, const std::vector<kelvane_off_t>& lengths)>;

    // Receives the bytes that a transfer moved to or from the hash file.
    using DataTransferMetricFunc = SimpleCachedReader::DataTransferMetricFunc;

    // Receives a stretch of consecutive whole blocks: the external offset of the first one, and their length.
    using RangeFunc = std::function<void(kelvane_off_t offset, kelvane_buf_len_t length)>;

    // Is told now and then how many bytes of a range are done, from its start on, and at the end that all are; returns
    // whether to go on, for which nobody asks at the end. May use the store. An empty one is not called.
    using ProgressFunc = std::function<bool(kelvane_buf_len_t done)>;

    // Closes the hash file; flushes nothing.
    ~BlockHashStore();

    BlockHashStore(const BlockHashStore&) = delete;
    BlockHashStore& operator=(const BlockHashStore&) = delete;

    // A store that was moved from can only be destroyed or assigned to.
    BlockHashStore(BlockHashStore&& other) noexcept;

    // Closes the hash file that was open before.
    BlockHashStore& operator=(BlockHashStore&& other) noexcept;

    // Makes a hash file at `path` in which every block is unknown, replacing a file that is there, and
    // waits until its content is on the disk. A new file is readable and writable for its owner alone.
    //   targetSizeInBytes  the target's end in external offsets, in bytes
    //   partitionOffset    the external offset at which block 0 starts, in bytes
    //   blockSize          in bytes, any value above 0; all blocks but the last are whole
    //   deleteFileOnError  removes the file at `path` after a failure, but not after the first three
    // An interrupted creation leaves a file that `open` refuses, or the one that was there before, perhaps with
    // fewer blocks known, or the new one.
    // Failures, before anything on disk is touched:
    //   "unknown hash id: " and the number
    //   "block size is invalid: 0"
    //   "target is too large for its block size: " and the target's and the block's size, when the hash
    //   file's size could not be expressed as a signed 64-bit number
    // and then:
    //   "error opening file for writing", with or without (errno)
    //   "error in seek while trying to grow the file to " N ", errno = " E
    //   "failed to write to block hash file"
    //   "failed to seek to beginning of file to write header." (errno)
    //   "failed to initialize header data" (errno)
    //   "failed to close fd while creating the block hash store" (errno)
    static void create(const std::string& path, HashFunctionType hashType, kelvane_size_t targetSizeInBytes,
                       kelvane_size_t partitionOffset, uint32_t blockSize, bool deleteFileOnError);

    // Checks an access to `length` bytes from the external offset `offset` on: it returns when
    // partition offset <= offset < target size, and offset + length <= target size; these are the
    // mathematical values, none of them wraps around. The target may have at most 2^63 - 1 bytes, which is its size
    // less the partition offset: one of more, or one that ends before it starts, accepts no access at all.
    // Otherwise it throws `log_tag` ": offset is out of bounds: " offset ", " end, where end is the target size less
    // the partition offset, printed as a signed 64-bit number. A negative length passes; the operations refuse it
    // afterwards. Where the target goes on behind the external offset 2^63 - 1, a range may lead there but not start
    // there; offsets there, as callbacks are given them, are those less 2^64.
    void throwOnAccessViolation(const std::string& log_tag, kelvane_off_t offset, kelvane_buf_len_t length) const;

    // Opens the hash file at `path` for a target that ends at `targetSizeInBytes` (an external offset, as
    // with `create`). When the file records another size it is adapted: entries are added as unknown or
    // cut off at its end, and its header is rewritten; all other entries stay as they are. A failure
    // may leave an adapted file. Allocates one block's size besides a fixed amount.
    //
    // The entry of a block that was the target's last, and those beyond a new end that share its last page
    // in the hash file, keep their hashes, or the part of them that the cut leaves; a later growth would
    // bring them back as known. So invalidate from the new end on before a target shrinks, or from the old
    // end on once the store is open for the larger size, before hashes there are trusted.
    // Failures, of which those of this list are a HashFileFinding too (see HashFileFault.h):
    //   "failed to stat hash file" (errno)
    //   "path does not represent a hash file"
    //   "file is too small to be valid: " and its size
    //   "failed to open file: " path (errno)
    //   "failed to read header" (errno)
    //   "header magic number does not match expected"
    //   "header version does not match the expected value"
    //   "the target size managed by the hash store has changed"
    //   "hash data offset is invalid: " found " " expected
    //   "unknown hashing function: " and the number
    //   "block size is invalid: 0"
    //   "the hash file size is incorrect for given target size"
    // and then:
    //   "target is too large for its block size: ..." as for `create`, of the size given
    // and while adapting the file:
    //   "error in seek while initting file region: " offset ", " length ", errno = " E
    //   "error in write while initting file region: " E
    //   "initFileRegion failed to sync hash file" (errno)
    //   "failed to truncate file: " E
    //   those of `create` that concern the header and the closing
    static std::unique_ptr<BlockHashStore> open(std::string path, kelvane_size_t targetSizeInBytes);

    // The hash of `length` bytes from the external offset `offset` on: the hash of the concatenated hashes
    // of all blocks that the range touches. A block that the range covers in part counts as a whole one
    // with zeros outside the range. Never empty. Length 0 gives the hash of zero bytes, without any
    // access or callback.
    //
    // Hashes of whole blocks come from the hash file; what it lacks, and partial blocks, is asked
    // of `dataRequiredFunc`, in at most one call, and stored. A range whose blocks are all known costs one
    // read; otherwise one read, one call and one write.
    // Failures, with `offset` as given:
    //   that of throwOnAccessViolation, with the tag get_hash
    //   "get_hash: length is negative: " and the length
    //   "get_hash: too many blocks in one request: " and their number, above 2^31 - 1
    //   "failed to seek in hash file: " position (errno)
    //   "failed to read hash value: " offset (errno)
    //   std::bad_function_call, when data is needed and `dataRequiredFunc` is empty
    //   "expected more image data than was returned while hashing" (errno), for fewer arrays than ranges,
    //   for more, and for a null array
    //   "failed to generate block hash"
    // so far the hash file is untouched; then
    //   "failed to seek in hash file during update: " position (errno)
    //   "failed to write hash: " offset (errno), which is also what becomes of more than 2^31 - 1 bytes of
    //   entries (65,075,262 blocks) in one request. What the write left is not repaired: some entries may be
    //   stored, and the last of these may be marked as known with only a part of its hash, so invalidate the range
    //   "failed to hash aggregate hashes"
    HashValue get_hash(kelvane_off_t offset, kelvane_buf_len_t length, DataRequiredFunc dataRequiredFunc);

    // The same hash as get_hash gives, of a range of any length, with data from a source, which is asked for what the
    // hash file lacks and for partial blocks, in order. New hashes of whole blocks are stored. Takes at most 256 KiB of
    // memory besides one block (more with a hash function that does not hash messages in pieces itself). Goes through
    // the range in pieces of at most 4096 blocks, each of which costs one read and, where hashes are new, one write
    // from the first new entry to the last. Empty when `progress` stopped it; what was stored stays. Failures, after
    // which the pieces before are stored:
    //   that of throwOnAccessViolation, with the tag hash_range
    //   "hash_range: length is negative: " and the length
    //   "failed to read hash entry: " position in the hash file (errno)
    //   "the source lent something else than was wanted at " offset ": " N " bytes of " M, when it lends null, less
    //   than one byte or too many "failed to generate block hash" "failed to seek in hash file: " position (errno)
    //   "failed to write hash: " offset (errno), with `offset` as given. See get_hash for what the file may then hold
    //   "failed to hash aggregate hashes"
    [[nodiscard]] HashValue hash_range(kelvane_off_t offset, kelvane_buf_len_t length, TargetSource& source,
                                       const ProgressFunc& progress = {});

    // Makes all blocks known that lie wholly in the range, with data from a source, which is asked for those that are
    // unknown, in order. What the range covers in part, at its ends, is not looked at. Memory, pieces, transfers and
    // failures are those of hash_range, with the tag learn_hashes. False when `progress` stopped it; the pieces
    // before are stored.
    bool learn_hashes(kelvane_off_t offset, kelvane_buf_len_t length, TargetSource& source,
                      const ProgressFunc& progress = {});

    // Calls `onWrong` for every stretch of blocks whose hash is known but not that of the data that a source lends,
    // among those that lie wholly in the range. The source is asked for the known blocks, in order. The stretches
    // ascend and do not touch; each is told once the piece is compared in which it ends, and `onWrong` may use the
    // store. Changes nothing. Memory, pieces and failures are those of hash_range, with the tag find_wrong_hashes and
    // twice the memory; std::bad_function_call when there is a wrong one and `onWrong` is empty. False when `progress`
    // stopped it; what was found before is told.
    bool find_wrong_hashes(kelvane_off_t offset, kelvane_buf_len_t length, TargetSource& source,
                           const RangeFunc& onWrong, const ProgressFunc& progress = {});

    // The hash of `blockSize` bytes at `buffer`, of any number; nothing is stored. Empty when the hash
    // function fails, as it does for a null buffer with a size above 0.
    [[nodiscard]] HashValue get_hash(kelvane_buf_t buffer, kelvane_size_t blockSize) const;

#if __cplusplus >= 202002L
    [[nodiscard]] HashValue get_hash(std::span<const std::byte> data) const
    {
        return get_hash(const_cast<std::byte*>(data.data()), data.size()); // which only reads it
    }
#endif

    // Tells the store that the `length` bytes at `buffer` now stand in the target from the external offset
    // `offset` on. Blocks that the range covers wholly get new hashes; those that it covers in
    // part become unknown, also by a range of length 0 inside a block. Costs one write.
    // Failures, with `offset` as given; the hash file is untouched but for the last:
    //   that of throwOnAccessViolation, with the tag update_hashes
    //   "update_hashes: length is negative: " and the length
    //   "encountered a null buffer while updating hashes", when the range touches a block
    //   "failed to write hash: " offset ": " EFBIG, for more than 65,075,262 blocks, before anything is hashed
    //   "failed to compute hash from data"
    //   "failed to seek in hash file: " position (errno)
    //   "failed to write hash: " offset (errno). See get_hash for what the file may then hold
    void update_hashes(kelvane_off_t offset, kelvane_buf_t buffer, kelvane_buf_len_t length);

#if __cplusplus >= 202002L
    void update_hashes(kelvane_off_t offset, std::span<const std::byte> data)
    {
        update_hashes(offset, const_cast<std::byte*>(data.data()), static_cast<kelvane_buf_len_t>(data.size()));
    }
#endif

    // As update_hashes, with hashes that were computed elsewhere: `hashes` holds those of the blocks that lie wholly in
    // the range, in order, each as long as the hash function's. It is only read, and may be null where there is no such
    // block. Takes at most 1 MiB of memory for entries, at any length. Costs one write for every 31775 blocks that
    // the range touches, and one for the rest of them.
    // Failures:
    //   that of throwOnAccessViolation, with the tag store_hashes
    //   "store_hashes: length is negative: " and the length
    //   "failed to seek in hash file: " position (errno)
    //   "failed to write hash: " offset (errno). The entries of earlier writes are stored; see also get_hash
    void store_hashes(kelvane_off_t offset, kelvane_buf_len_t length, const unsigned char* hashes);

    // As update_hashes with `length` zeros, for a range of the target that now reads as zeros: discarded, punched,
    // zeroed, or never written. If the hashes are to be true after a crash, the zeros must be on stable storage
    // before the call. Needs no buffer, hashes a single block and takes at most 1 MiB of memory for entries, at any
    // length. Costs one write for every 31775 blocks that the range touches, and one for the rest of them.
    // Failures:
    //   that of throwOnAccessViolation, with the tag store_hashes_of_zeros
    //   "store_hashes_of_zeros: length is negative: " and the length
    //   "failed to compute hash from data"; so far the hash file is untouched
    //   "failed to seek in hash file: " position (errno)
    //   "failed to write hash: " offset (errno). The entries of earlier writes are stored; see also get_hash
    void store_hashes_of_zeros(kelvane_off_t offset, kelvane_buf_len_t length);

    // Makes every block that the range touches unknown. Costs one write. Fails as update_hashes does.
    void invalidate_hashes(kelvane_off_t offset, kelvane_buf_len_t length);

    // Calls `onRange` for every stretch of blocks whose hash is unknown, among those that lie wholly in the range
    // of `length` bytes from the external offset `offset` on. The stretches ascend and do not touch; what the range
    // covers in part, at its ends, is not looked at. Reads the entries in pieces of at most 132 KiB, so that
    // the range may have any number of blocks, and changes nothing. `onRange` may use the store: what it changes
    // behind the stretch that it was given may be seen or not.
    // Failures:
    //   that of throwOnAccessViolation, with the tag for_each_unknown_range
    //   "for_each_unknown_range: length is negative: " and the length
    //   std::bad_function_call, when there is an unknown block and `onRange` is empty
    //   "failed to read hash entry: " position in the hash file (errno)
    void for_each_unknown_range(kelvane_off_t offset, kelvane_buf_len_t length, const RangeFunc& onRange);

    // The target's end, an external offset in bytes, as given to `open`.
    kelvane_size_t target_size_in_bytes() const;

    // The external offset of block 0 in bytes, as given to `create`.
    kelvane_size_t partition_offset_in_bytes() const;

    // The size of a block in bytes.
    uint32_t getBlockSize() const;

    // As the hash file records it.
    HashFunctionType getHashFunctionType() const;

    // Installs a callback for what is written to the hash file; an empty one switches it off. A callback that
    // throws ends the operation with its exception; the transfer has taken place, or failed half-way: treat it
    // as "failed to write hash".
    void setOnWriteCallback(DataTransferMetricFunc on_write);

    // The same for what is read from the hash file.
    void setOnReadCallback(DataTransferMetricFunc on_read);

    // For use after a crash of the machine, or when a process ended inside of a call (by a signal, for instance),
    // before any hash is trusted: makes unknown every entry of which a
    // part may not have reached the disk, and returns how many those are. An entry that crosses a boundary of
    // 512 bytes in the hash file can be stored in halves; what a half replaces is zeros, because unknown
    // entries hold zeros, and by that it is known. (About one whole entry in a hundred thousand looks the same
    // and is made unknown too.) Reads the hash file once, in small pieces; call `sync_to_disk` afterwards.
    // Presumes that entries were invalidated, and that was synced, before new hashes replaced known ones.
    // Failures:
    //   "failed to read hash entry: " position in the hash file (errno)
    //   "failed to clear hash entry: " position in the hash file (errno)
    uint64_t discard_torn_entries();

    // Brings all entries to stable storage; true when that succeeded, with `errno` set otherwise.
    // After false, what was written since the last success may have reached the disk in parts and be forgotten: memory
    // goes on showing it, to every store, and the next call may succeed without it. So do not write the target, and
    // trust no hash that was changed since then, before one of these is done:
    //   everything that was changed since is invalidated again, which writes it anew, and this returns true; or
    //   all stores on the file are closed, the file is dropped from the system's memory (posix_fadvise with
    //   POSIX_FADV_DONTNEED), which shows what the disk has, it is opened and discard_torn_entries called; or
    //   it is created anew.
    [[nodiscard]] bool sync_to_disk();

private:
    friend class HashFileInspector;
    friend struct BlockHashStoreTestPeer;

    struct Header {
        uint64_t magicNumber;
        uint64_t version;
        uint64_t dataRegionOffsetInBytes;
        uint32_t blockSizeInBytes;
        uint64_t targetSizeInBytes;
        uint64_t partitionOffset;
        uint32_t hashId;
    };

    enum HashFlags : uint8_t { InUse = 1 };

    class BlockHasher;
    class CallbackGuard;
    class DescriptorGuard;
    struct FreeMemory {
        void operator()(char* array) const;
    };
    struct Runs;
    struct Span;
    class Stretches;
    struct TransferFailures;
    struct Window;

    static constexpr kelvane_buf_len_t MAXIMUM_CREATE_FILE_BUFFER_SIZE = 1048576;
    static constexpr uint32_t DEFAULT_BLOCK_SIZE = 4096;
    static constexpr uint64_t BLOCK_HASH_STORE_MAGIC_NUMBER = 0x20001312;
    static constexpr uint64_t BLOCK_HASH_STORE_CURRENT_VERSION = 0;

    BlockHashStore();

    void update_hashes_internal(kelvane_off_t offset, kelvane_buf_t buffer, kelvane_buf_len_t length,
                                bool invalidate_only);
    void init();
    void open_internal(const std::string& path, kelvane_size_t targetSizeInBytes);
    bool resizeIfTargetChangeDetected(const std::string& path, kelvane_size_t targetSizeInBytes,
                                      kelvane_size_t fileSize);
    void validateHeader(kelvane_size_t targetSizeInBytes, kelvane_size_t fileSize);
    void growHashBufferWhenNeeded(kelvane_buf_len_t sizeRequested);
    kelvane_off_t toInternalOffset(kelvane_off_t offset) const;
    kelvane_off_t fromInternalOffset(kelvane_off_t offset) const;
    kelvane_size_t hashSize() const;
    kelvane_off_t getPartitionOffset() const;
    static kelvane_size_t getSystemPageSize();
    static off_t seek(int fd, off_t offset, int whence);
    static void createFile(const std::string& path, kelvane_size_t fileLength);
    void initFileRegion(uint64_t offset, uint64_t length);
    static void initHeader(const std::string& path, kelvane_size_t targetSizeInBytes, kelvane_off_t partitionOffset,
                           uint32_t blockSize, uint32_t hashId);
    static uint64_t bytesToBlocks(kelvane_size_t bytes, uint32_t blockSize);
    static kelvane_size_t getHashEntrySize(kelvane_size_t hashSize);
    static uint64_t computeDataSize(kelvane_size_t targetSizeInBytes, uint32_t blockSize, kelvane_size_t hashSize);
    static uint64_t computeHeaderSize();
    static uint64_t computeFileSize(kelvane_size_t targetSizeInBytes, uint32_t blockSize, kelvane_size_t hashSize);
    uint64_t computeMaximumInternalOffset() const;
    static bool validReadWrite(kelvane_ssize_t expectedValue, kelvane_ssize_t actualValue);
    static void throwWithErrno(const std::string& message);

    // Helpers of the operations above, beyond the file format.
    static void throwWithErrno(std::string_view message, std::string_view value);
    [[noreturn]] static void failWithErrno(std::string_view message, std::string_view value = {});
    [[noreturn]] static void failWithErrno(std::string_view message, kelvane_ssize_t value);
    static bool fileCanHaveSize(kelvane_size_t targetSizeInBytes, uint32_t blockSize, kelvane_size_t hashSize);
    static void throwOnUnusableSizes(kelvane_size_t targetSizeInBytes, uint32_t blockSize, kelvane_size_t hashSize);
    static uint64_t fileSizeOfNew(HashFunctionType hashType, kelvane_size_t targetSizeInBytes, uint32_t blockSize);
    static void makeFile(const std::string& path, kelvane_size_t fileLength);
    template <class Write>
    static bool writesZeros(uint64_t length, const Write& write);
    static void writeHeader(const std::string& path, kelvane_size_t targetSizeInBytes, kelvane_off_t partitionOffset,
                            uint32_t blockSize, uint32_t hashId);
    void openAndAdapt(const std::string& path, kelvane_size_t targetSizeInBytes);
    uint64_t openAndValidate(const std::string& path, int flags);
    HashFileFinding openAndExamine(const std::string& path, int flags);
    HashFileFinding examineHeader(kelvane_size_t targetSizeInBytes, kelvane_size_t fileSize);
    HashFileFault headerFault(kelvane_size_t targetSizeInBytes, kelvane_size_t fileSize);
    void throwOnFault(const HashFileFinding& finding, const std::string& path = {}) const;
    std::string textOf(const HashFileFinding& finding, const std::string& path) const;
    static uint64_t fieldWith(HashFileFault fault);
    void addZeros(uint64_t offset, uint64_t length);
    Span spanOf(const char* operation, kelvane_off_t offset, kelvane_buf_len_t length) const;
    kelvane_off_t blockOffset(const Span& span, kelvane_ssize_t position) const;
    kelvane_ssize_t blockSize() const;
    kelvane_ssize_t entrySize() const;
    kelvane_ssize_t entryOffsetInFile(kelvane_ssize_t block) const;
    template <class Transfer>
    void transferEntries(kelvane_ssize_t firstBlock, kelvane_ssize_t count, const TransferFailures& failures,
                         Transfer transfer);
    void readEntries(kelvane_ssize_t firstBlock, kelvane_ssize_t count, char* entries,
                     const TransferFailures& failures);
    void writeEntries(kelvane_ssize_t firstBlock, kelvane_ssize_t count, const char* entries,
                      const TransferFailures& failures);
    BlockHasher blockHasher(const char* failure);
    bool throughWindows(const Span& span, kelvane_ssize_t from, kelvane_ssize_t end, const ProgressFunc& progress,
                        const std::function<void(const Window&)>& take);
    Runs planRuns(const Span& span, const Window& window, uint8_t flag) const;
    kelvane_ssize_t positionInBlock(kelvane_off_t offset) const;
    void hashRuns(const Runs& runs, const Window& window, const std::vector<std::unique_ptr<char[]>>& data);
    void hashRuns(const Runs& runs, const Window& window, BlockHasher& hasher, TargetSource& source);
    kelvane_ssize_t hashLent(kelvane_off_t offset, kelvane_ssize_t length, BlockHasher& hasher, TargetSource& source);
    void completeWindow(const Span& span, const Window& window, BlockHasher& hasher, TargetSource& source, bool stores);
    std::size_t concatenateHashes(const Window& window) const;
    static HashValue checkedAggregate(HashValue hash);
    void storeHashes(kelvane_off_t offset, kelvane_buf_len_t length, const unsigned char* hashes);
    void storeHashesOfZeros(kelvane_off_t offset, kelvane_buf_len_t length);
    template <class Fill>
    void storeWindow(const Span& span, const Window& window, const Fill& fill);
    template <class Fill>
    void storeEntries(const Span& span, const Fill& fill);
    uint64_t discardTornEntries();
    HashValue hashOfRange(kelvane_off_t offset, kelvane_buf_len_t length, const DataRequiredFunc& dataRequiredFunc,
                          bool stores);
    HashValue hashOfRange(kelvane_off_t offset, kelvane_buf_len_t length, TargetSource& source,
                          const ProgressFunc& progress, bool stores);
    void throwWithinDataCallback() const;
    static std::unique_ptr<char[], FreeMemory> makeZeroedBlock(uint32_t blockSize);

    Header m_header;
    SimpleCachedReader m_file;
    std::unique_ptr<char[]> m_hashBuffer;
    kelvane_buf_len_t m_hashBufferSize;
    std::unique_ptr<IHashFunction> m_hashFunction;
    std::unique_ptr<char[], FreeMemory> m_blockBuffer; // zeros, but while a partial block is hashed
    bool m_isInDataCallback = false;
};

} // namespace kelvane
