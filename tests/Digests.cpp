// Prints the instruction set in use, and then digests as bytes, which digests_test.py checks: of messages of every
// length to 2100 bytes, and of batches of up to 130 messages of several lengths. Message number i is what begins at
// byte 37 * i.
#include <cstdio>
#include <vector>

#include "BlakeHash.h"
#include "hash/Blake2sp.h"

namespace {

using Bytes = std::vector<unsigned char>;

constexpr std::size_t LONGEST = 2100, MOST = 130, STEP = 37;
constexpr std::size_t LENGTHS_IN_BATCHES[] = {0, 1, 64, 512, 513, 1500, 4096};

Bytes content()
{
    Bytes bytes(MOST * STEP + 4096);
    for (std::uint32_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<unsigned char>((i * 2654435761U) >> 24);
    }
    return bytes;
}

bool print(const Bytes& bytes)
{
    return std::fwrite(bytes.data(), 1, bytes.size(), stdout) == bytes.size();
}

bool printBatch(kelvane::BlakeHash& hash, Bytes& bytes, std::size_t count, std::size_t length)
{
    Bytes digests(count * kelvane::BLAKE2SP_DIGEST_SIZE_IN_BYTES);
    std::vector<kelvane::kelvane_buf_t> messages;
    std::vector<unsigned char*> places;
    for (std::size_t i = 0; i < count; ++i) {
        messages.push_back(&bytes[i * STEP]);
        places.push_back(&digests[i * kelvane::BLAKE2SP_DIGEST_SIZE_IN_BYTES]);
    }
    const auto size = static_cast<kelvane::kelvane_buf_len_t>(length);
    return hash.get_hashes(messages.data(), count, size, places.data()) == count && print(digests);
}

} // namespace

int main()
{
    Bytes bytes = content();
    kelvane::BlakeHash hash;
    bool isGood = std::printf("%s\n", kelvane::blake2spInstructionSet()) > 0;
    for (std::size_t length = 0; length <= LONGEST; ++length) {
        isGood = isGood && print(hash.get_hash(bytes.data(), static_cast<kelvane::kelvane_buf_len_t>(length)));
    }
    for (const std::size_t length : LENGTHS_IN_BATCHES) {
        for (std::size_t count = 1; count <= MOST; ++count) {
            isGood = isGood && printBatch(hash, bytes, count, length);
        }
    }
    return isGood && std::fflush(stdout) == 0 ? 0 : 1;
}
