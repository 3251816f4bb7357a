// Looks into a hash file without changing, locking or adapting it.
#pragma once

#include <memory>
#include <string>

#include "BlockHashStore.h"
#include "Export.h"

namespace kelvane {

// What a hash file records and which blocks it lacks. Needs no more than permission to read. The file may be in use:
// then every answer about entries is of some moment during the call. Offsets are those of BlockHashStore. Belongs to
// one thread at a time.
class KELVANE_EXPORT HashFileInspector {
public:
    // Opens the hash file at `path` for reading and validates its header and its size as BlockHashStore::open
    // does, against the target size that it records itself. Allocates as much. Failures, each a HashFileFinding too:
    //   "failed to stat hash file" (errno)
    //   "path does not represent a hash file"
    //   "file is too small to be valid: " and its size
    //   "failed to open file: " path (errno)
    //   "failed to read header" (errno)
    //   "header magic number does not match expected"
    //   "header version does not match the expected value"
    //   "hash data offset is invalid: " found " " expected
    //   "unknown hashing function: " and the number
    //   "block size is invalid: 0"
    //   "the hash file size is incorrect for given target size"
    // While another exception is propagating, one marked (errno) is logged, and the construction ends with
    // "cannot inspect a hash file while an exception propagates".
    explicit HashFileInspector(const std::string& path);
    ~HashFileInspector();
    HashFileInspector(const HashFileInspector&) = delete;
    HashFileInspector& operator=(const HashFileInspector&) = delete;

    // One that was moved from can only be destroyed or assigned to.
    HashFileInspector(HashFileInspector&& other) noexcept;
    // Closes its own hash file, and takes the other one's.
    HashFileInspector& operator=(HashFileInspector&& other) noexcept;

    // Looks whether the file at `path` can be opened as a hash file, and why not, without the failures of opening:
    // throws nothing but std::bad_alloc. FileSize is told against the size of the target that the file records itself,
    // and TargetSize never.
    [[nodiscard]] static HashFileFinding examine(const std::string& path);

    // What the header held when the file was opened.
    uint64_t magic_number() const;
    uint64_t version() const;                         // 0, the only one there is
    uint64_t data_region_offset_in_bytes() const;     // where the entries start in the file
    uint32_t block_size_in_bytes() const;             // above 0
    kelvane_size_t target_size_in_bytes() const;      // the target's end, an external offset
    kelvane_size_t partition_offset_in_bytes() const; // the external offset of block 0; not checked against the end
    HashFunctionType hash_function_type() const;      // by which the blocks were hashed
    kelvane_size_t hash_size_in_bytes() const;        // of one digest

    kelvane_size_t file_size_in_bytes() const; // when it was opened

    // The size in bytes of the hash file that BlockHashStore::create makes, whose first three failures it shares.
    [[nodiscard]] static kelvane_size_t file_size_for(HashFunctionType hashType, kelvane_size_t targetSizeInBytes,
                                                      uint32_t blockSize);

    // As BlockHashStore::get_hash, but nothing is stored.
    [[nodiscard]] BlockHashStore::HashValue get_hash(kelvane_off_t offset, kelvane_buf_len_t length,
                                                     const BlockHashStore::DataRequiredFunc& dataRequiredFunc);

    // As BlockHashStore::hash_range, but nothing is stored.
    [[nodiscard]] BlockHashStore::HashValue hash_range(kelvane_off_t offset, kelvane_buf_len_t length,
                                                       TargetSource& source,
                                                       const BlockHashStore::ProgressFunc& progress = {});

    // As BlockHashStore::find_wrong_hashes. `onWrong` and `progress` may use the inspector.
    bool find_wrong_hashes(kelvane_off_t offset, kelvane_buf_len_t length, TargetSource& source,
                           const BlockHashStore::RangeFunc& onWrong, const BlockHashStore::ProgressFunc& progress = {});

    // As BlockHashStore::for_each_unknown_range. `onRange` may use the inspector.
    void for_each_unknown_range(kelvane_off_t offset, kelvane_buf_len_t length,
                                const BlockHashStore::RangeFunc& onRange);

    // The same of the whole target; of one that accepts no access, nothing.
    void for_each_unknown_range(const BlockHashStore::RangeFunc& onRange);

private:
    std::unique_ptr<BlockHashStore> m_store; // opened for reading alone
    kelvane_size_t m_fileSize;
};

} // namespace kelvane
