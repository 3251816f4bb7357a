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

} // namespace kelvane
