#include "BlakeHash.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>
#include <typeinfo>

#include "hash/Blake2sp.h"

namespace kelvane {

namespace {

using Digest = std::array<unsigned char, BLAKE2SP_DIGEST_SIZE_IN_BYTES>;

// A buffer equals itself moved by one byte exactly when all its bytes are equal.
bool isAllZeros(const void* buffer, std::size_t length)
{
    const auto* bytes = static_cast<const unsigned char*>(buffer);
    return length != 0 && bytes[0] == 0 && std::memcmp(bytes, bytes + 1, length - 1) == 0;
}

class BlakeMessage : public IHashFunction::Message {
public:
    void add(const void* bytes, std::size_t length) override { m_message.add(bytes, length); }

    IHashFunction::HashValue finish() override
    {
        IHashFunction::HashValue digest(BLAKE2SP_DIGEST_SIZE_IN_BYTES);
        m_message.finish(digest.data());
        return digest;
    }

private:
    Blake2spMessage m_message;
};

} // namespace

IHashFunction::HashValue BlakeHash::get_hash(kelvane_buf_t buffer, kelvane_buf_len_t length)
{
    if (length < 0 || (buffer == nullptr && length != 0)) {
        return {};
    }
    HashValue digest(BLAKE2SP_DIGEST_SIZE_IN_BYTES);
    blake2sp(buffer, static_cast<std::size_t>(length), digest.data());
    return digest;
}

kelvane_size_t BlakeHash::hash_size_in_bytes() const
{
    return BLAKE2SP_DIGEST_SIZE_IN_BYTES;
}

HashFunctionType BlakeHash::hash_id() const
{
    return Blake2dHashFunctionType;
}

std::size_t BlakeHash::get_hashes(const kelvane_buf_t* buffers, std::size_t count, kelvane_buf_len_t length,
                                  unsigned char* const* digests)
{
    if (typeid(*this) != typeid(BlakeHash)) { // what is derived may hash otherwise
        return IHashFunction::get_hashes(buffers, count, length, digests);
    }
    if (length < 0) {
        return 0;
    }
    const auto size = static_cast<std::size_t>(length);
    const std::size_t end
        = size == 0 ? count : static_cast<std::size_t>(std::find(buffers, buffers + count, nullptr) - buffers);
    std::array<const void*, BLAKE2SP_BATCH> messages;
    std::array<unsigned char*, BLAKE2SP_BATCH> places;
    std::optional<Digest> ofZeros;
    for (std::size_t next = 0; next < end;) {
        std::size_t waiting = 0; // to be hashed side by side
        for (; next < end && waiting < BLAKE2SP_BATCH; ++next) {
            if (!isAllZeros(buffers[next], size)) {
                messages[waiting] = buffers[next];
                places[waiting++] = digests[next];
                continue;
            }
            if (!ofZeros) {
                blake2sp(buffers[next], size, ofZeros.emplace().data());
            }
            std::copy(ofZeros->begin(), ofZeros->end(), digests[next]);
        }
        blake2spMany(messages.data(), waiting, size, places.data());
    }
    return end;
}

std::unique_ptr<IHashFunction::Message> BlakeHash::begin_message()
{
    if (typeid(*this) != typeid(BlakeHash)) {
        return IHashFunction::begin_message();
    }
    return std::make_unique<BlakeMessage>();
}

} // namespace kelvane
