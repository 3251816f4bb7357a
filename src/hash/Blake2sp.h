// BLAKE2sp, 32-byte digest: the official eight-leaf, depth-two tree over BLAKE2s, without key, salt
// or personalisation.
//
// Every function is safe to call from any thread at any time, allocates nothing and gives the same
// digests on every instruction set. The widest one that the processor has is chosen at the first call.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kelvane {

constexpr size_t BLAKE2SP_DIGEST_SIZE_IN_BYTES = 32;

// Writes the digest of the `length` bytes at `message` to the 32 bytes at `digest`. Neither needs to
// be aligned. `message` may be null when `length` is 0.
void blake2sp(const void* message, size_t length, unsigned char* digest);

constexpr size_t BLAKE2SP_BATCH = 64; // messages at once, a multiple of what any instruction set hashes side by side

// Writes the digest of messages[i], each `length` bytes long, to the 32 bytes at digests[i], for every
// i below `count`, which is at most BLAKE2SP_BATCH. Many messages at once cost less per message than one at a time.
// Digests must not overlap messages.
void blake2spMany(const void* const* messages, size_t count, size_t length, unsigned char* const* digests);

// The leaves of a message of which a part has come: for every word of their chaining values, that of each leaf.
struct Blake2spLeaves {
    Blake2spLeaves();

    uint32_t words[8][8];
    uint64_t absorbed = 0; // bytes of the message
};

// A message that comes in pieces.
class Blake2spMessage {
public:
    void add(const void* bytes, size_t length);

    // Writes the digest of all that was added to the 32 bytes at `digest`. The last call.
    void finish(unsigned char* digest);

private:
    friend struct Blake2spMessageTestPeer;

    Blake2spLeaves m_leaves;
    size_t m_restLength = 0;
    unsigned char m_rest[1024]; // the last block of a leaf is another one, so that much waits for what follows
};

// The name of the instruction set in use, for reports; a string that lives as long as the program.
const char* blake2spInstructionSet();

} // namespace kelvane
