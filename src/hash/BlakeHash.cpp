#include "BlakeHash.h"

#include <algorithm>
#include <array>
#include <cstring>
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

// Puts buffers off until there are enough to be hashed side by side.
class SideBySide {
public:
    explicit SideBySide(std::size_t length)
        : m_length(length)
    {
    }

    void add(const void* buffer, unsigned char* digest)
    {
        m_buffers[m_count] = buffer;
        m_digests[m_count] = digest;
        if (++m_count == m_buffers.size()) {
            flush();
        }
    }

    void flush()
    {
        blake2spMany(m_buffers.data(), m_count, m_length, m_digests.data());
        m_count = 0;
    }

private:
    std::size_t m_length;
    std::size_t m_count = 0;
    std::array<const void*, BLAKE2SP_BATCH> m_buffers;
    std::array<unsigned char*, BLAKE2SP_BATCH> m_digests;
};

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
    SideBySide pending(size);
    Digest zeroDigest;
    bool haveZeroDigest = false;
    std::size_t done = 0;
    for (; done < count && (buffers[done] != nullptr || size == 0); ++done) {
        if (!isAllZeros(buffers[done], size)) {
            pending.add(buffers[done], digests[done]);
            continue;
        }
        if (!haveZeroDigest) {
            blake2sp(buffers[done], size, zeroDigest.data());
            haveZeroDigest = true;
        }
        std::copy(zeroDigest.begin(), zeroDigest.end(), digests[done]);
    }
    pending.flush();
    return done;
}

std::unique_ptr<IHashFunction::Message> BlakeHash::begin_message()
{
    if (typeid(*this) != typeid(BlakeHash)) {
        return IHashFunction::begin_message();
    }
    return std::make_unique<BlakeMessage>();
}

} // namespace kelvane
