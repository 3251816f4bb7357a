#include "IHashFunction.h"

#include <cstring>

namespace kelvane {

IHashFunction::HashValue IHashFunction::get_hash(kelvane_buf_t /*buffer*/, kelvane_buf_len_t /*length*/)
{
    return {};
}

kelvane_size_t IHashFunction::hash_size_in_bytes() const
{
    return 0;
}

HashFunctionType IHashFunction::hash_id() const
{
    return Invalid;
}

std::size_t IHashFunction::get_hashes(const kelvane_buf_t* buffers, std::size_t count, kelvane_buf_len_t length,
                                      unsigned char* const* digests)
{
    for (std::size_t i = 0; i < count; ++i) {
        const HashValue hash = get_hash(buffers[i], length);
        if (hash.empty() || hash.size() != hash_size_in_bytes()) {
            return i;
        }
        std::memcpy(digests[i], hash.data(), hash.size());
    }
    return count;
}

namespace {

// What a hash function that knows whole messages alone makes of one in pieces.
class KeptMessage : public IHashFunction::Message {
public:
    explicit KeptMessage(IHashFunction& hashFunction)
        : m_hashFunction(hashFunction)
    {
    }

    void add(const void* bytes, std::size_t length) override
    {
        const auto* const first = static_cast<const unsigned char*>(bytes);
        m_bytes.insert(m_bytes.end(), first, first + length);
    }

    IHashFunction::HashValue finish() override
    {
        return m_hashFunction.get_hash(m_bytes.data(), static_cast<kelvane_buf_len_t>(m_bytes.size()));
    }

private:
    IHashFunction& m_hashFunction;
    std::vector<unsigned char> m_bytes;
};

} // namespace

std::unique_ptr<IHashFunction::Message> IHashFunction::begin_message()
{
    return std::make_unique<KeptMessage>(*this);
}

} // namespace kelvane
