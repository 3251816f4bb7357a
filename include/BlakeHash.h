// BLAKE2sp with a 32-byte digest.
#pragma once

#include "Export.h"
#include "IHashFunction.h"

namespace kelvane {

// The official BLAKE2sp (eight leaves, depth two, inner length 32), digest length 32, without key, salt
// or personalisation. Objects keep no state: one may be shared by threads, and all give the same digests.
class KELVANE_EXPORT BlakeHash : public IHashFunction {
public:
    ~BlakeHash() override = default;

    // The digest of `length` bytes at `buffer`, which needs no alignment. Length 0 gives the digest of
    // the empty message, whatever `buffer` is. A null buffer with a length above 0, or a negative
    // length, gives an empty value.
    [[nodiscard]] HashValue get_hash(kelvane_buf_t buffer, kelvane_buf_len_t length) override;

    kelvane_size_t hash_size_in_bytes() const override; // 32

    HashFunctionType hash_id() const override; // Blake2dHashFunctionType

    // As the interface has it. Many buffers at once cost less per buffer than one by one, and buffers of
    // nothing but zeros cost no more than a look at them. Stops at the first null buffer, unless
    // `length` is 0; a negative length writes nothing. Allocates nothing. Of a class that is derived from this one it
    // calls get_hash for one buffer after the other, as the interface does.
    [[nodiscard]] std::size_t get_hashes(const kelvane_buf_t* buffers, std::size_t count, kelvane_buf_len_t length,
                                         unsigned char* const* digests) override;

    // Takes 1.3 KiB, however long the message becomes; pieces of some kilobytes and more cost what one buffer costs. Of
    // a derived class, a message is that of the interface.
    [[nodiscard]] std::unique_ptr<Message> begin_message() override;
};

} // namespace kelvane
