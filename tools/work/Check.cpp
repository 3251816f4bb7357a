#include "work/Check.h"

#include <cstdlib>
#include <kelvane/HashFunctionFactory.h>
#include <new>

namespace kelvane::tool {

namespace {

std::unique_ptr<IHashFunction> makeHashFunction()
{
    return HashFunctionFactory::createHashFunction(Blake2dHashFunctionType);
}

} // namespace

Check::Check(const Image& image, std::int64_t blockSize)
    : m_image(image)
    , m_blockSize(blockSize)
{
}

std::vector<Range> Check::wrongBlocks(Store& store, Range range, char* data)
{
    std::vector<Range> wrong;
    compare(store, range, digestsOf(range, data), range, wrong);
    return wrong;
}

Check::Digests Check::digestsOf(Range range, char* data)
{
    const auto count = static_cast<std::size_t>(range.length / m_blockSize);
    Digests digests;
    if (data == nullptr) {
        const Digests digest = zeroDigest();
        for (std::size_t i = 0; i < count; ++i) {
            digests.insert(digests.end(), digest.begin(), digest.end());
        }
        return digests;
    }
    const auto function = makeHashFunction();
    const auto digestSize = static_cast<std::size_t>(function->hash_size_in_bytes());
    digests.resize(count * digestSize);
    std::vector<kelvane_buf_t> blocks;
    std::vector<unsigned char*> places;
    for (std::size_t i = 0; i < count; ++i) {
        blocks.push_back(data + static_cast<std::int64_t>(i) * m_blockSize);
        places.push_back(digests.data() + i * digestSize);
    }
    function->get_hashes(blocks.data(), count, m_blockSize, places.data());
    return digests;
}

Check::Digests Check::zeroDigest()
{
    std::call_once(m_zerosHashed, [&] {
        const std::unique_ptr<void, void (*)(void*)> zeros(std::calloc(static_cast<std::size_t>(m_blockSize), 1),
                                                           std::free);
        m_zeroDigest = zeros ? makeHashFunction()->get_hash(zeros.get(), m_blockSize) : throw std::bad_alloc();
    });
    return m_zeroDigest;
}

// By halving what differs. `digests` are those of the blocks of `whole`.
void Check::compare(Store& store, Range whole, const Digests& digests, Range range, std::vector<Range>& wrong) const
{
    const auto function = makeHashFunction();
    const auto digestSize = static_cast<std::int64_t>(function->hash_size_in_bytes());
    const std::int64_t blocks = range.length / m_blockSize;
    const std::int64_t first = (range.offset - whole.offset) / m_blockSize;
    std::atomic<std::int64_t> bytesRead = 0;                                            // all its hashes are known
    auto* const part = const_cast<unsigned char*>(digests.data() + first * digestSize); // which is only read
    if (store.hash(range, m_image, bytesRead) == function->get_hash(part, blocks * digestSize)) {
        return;
    }
    if (blocks == 1) {
        append(wrong, range);
        return;
    }
    const std::int64_t middle = range.offset + blocks / 2 * m_blockSize;
    compare(store, whole, digests, between(range.offset, middle), wrong);
    compare(store, whole, digests, between(middle, range.end()), wrong);
}

} // namespace kelvane::tool
