// A hash function as the block hash store sees it.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "Export.h"
#include "HashFunctionType.h"
#include "Types.h"

namespace kelvane {

// An object is used by one thread at a time. The operations of this class itself are those of no hash
// function at all: they fail, and have size 0 and the type Invalid.
class KELVANE_EXPORT IHashFunction {
public:
    using HashValue = std::vector<unsigned char>; // one digest; an empty one means that hashing failed

    // A message that is hashed piece by piece.
    class KELVANE_EXPORT Message {
    public:
        virtual ~Message() = default;

        // The `length` bytes at `bytes` come next; null will do for none. They are not needed afterwards.
        virtual void add(const void* bytes, std::size_t length) = 0;

        // The digest that get_hash gives for all bytes that were added; empty when hashing fails. Once, as the last
        // call.
        [[nodiscard]] virtual HashValue finish() = 0;
    };

    virtual ~IHashFunction() = default;

    // The digest of the `length` bytes at `buffer`: exactly hash_size_in_bytes() bytes, or an empty
    // value when hashing fails. The buffer is only read.
    [[nodiscard]] virtual HashValue get_hash(kelvane_buf_t buffer, kelvane_buf_len_t length);

    // The size of every digest in bytes. It is the same for all objects of one type, for ever.
    virtual kelvane_size_t hash_size_in_bytes() const;

    virtual HashFunctionType hash_id() const; // its number in hash files

    // Hashes `count` buffers of `length` bytes each, in order, and writes the digest of buffers[i] to the
    // hash_size_in_bytes() bytes at digests[i]. No two digests may overlap, nor a digest a buffer; there
    // is no requirement of alignment. Returns how many digests were written: `count`, or k when
    // hashing buffers[k] failed, by an empty digest or one of another size; then the digests before the
    // k-th are written. An exception that hashing throws passes through.
    // Unless overridden it calls get_hash for one buffer after the other.
    [[nodiscard]] virtual std::size_t get_hashes(const kelvane_buf_t* buffers, std::size_t count,
                                                 kelvane_buf_len_t length, unsigned char* const* digests);

    // Begins a message, which this object must outlive. Never null.
    // Unless overridden, a message keeps its bytes until it is finished, and then calls get_hash.
    [[nodiscard]] virtual std::unique_ptr<Message> begin_message();
};

} // namespace kelvane
