#include "HashFileInspector.h"

#include <fcntl.h>

#include <stdexcept>

#include "BlockHashStore/Internals.h"

namespace kelvane {

HashFileInspector::HashFileInspector(const std::string& path)
    : m_store(new BlockHashStore())
{
    try {
        m_fileSize = m_store->openAndValidate(path, O_RDONLY);
    } catch (const GivenUp&) {
        throw std::runtime_error("cannot inspect a hash file while an exception propagates");
    }
    m_store->m_blockBuffer = BlockHashStore::makeZeroedBlock(block_size_in_bytes());
}

HashFileFinding HashFileInspector::examine(const std::string& path)
{
    return BlockHashStore().openAndExamine(path, O_RDONLY);
}

HashFileInspector::~HashFileInspector() = default;
HashFileInspector::HashFileInspector(HashFileInspector&& other) noexcept = default;
HashFileInspector& HashFileInspector::operator=(HashFileInspector&& other) noexcept = default;

uint64_t HashFileInspector::magic_number() const
{
    return m_store->m_header.magicNumber;
}

uint64_t HashFileInspector::version() const
{
    return m_store->m_header.version;
}

uint64_t HashFileInspector::data_region_offset_in_bytes() const
{
    return m_store->m_header.dataRegionOffsetInBytes;
}

uint32_t HashFileInspector::block_size_in_bytes() const
{
    return m_store->getBlockSize();
}

kelvane_size_t HashFileInspector::target_size_in_bytes() const
{
    return m_store->target_size_in_bytes();
}

kelvane_size_t HashFileInspector::partition_offset_in_bytes() const
{
    return m_store->partition_offset_in_bytes();
}

HashFunctionType HashFileInspector::hash_function_type() const
{
    return m_store->getHashFunctionType();
}

kelvane_size_t HashFileInspector::hash_size_in_bytes() const
{
    return m_store->hashSize();
}

kelvane_size_t HashFileInspector::file_size_in_bytes() const
{
    return m_fileSize;
}

kelvane_size_t HashFileInspector::file_size_for(HashFunctionType hashType, kelvane_size_t targetSizeInBytes,
                                                uint32_t blockSize)
{
    return BlockHashStore::fileSizeOfNew(hashType, targetSizeInBytes, blockSize);
}

BlockHashStore::HashValue HashFileInspector::get_hash(kelvane_off_t offset, kelvane_buf_len_t length,
                                                      const BlockHashStore::DataRequiredFunc& dataRequiredFunc)
{
    return emptyWhenGivenUp([&] { return m_store->hashOfRange(offset, length, dataRequiredFunc, false); });
}

BlockHashStore::HashValue HashFileInspector::hash_range(kelvane_off_t offset, kelvane_buf_len_t length,
                                                        TargetSource& source,
                                                        const BlockHashStore::ProgressFunc& progress)
{
    return emptyWhenGivenUp([&] { return m_store->hashOfRange(offset, length, source, progress, false); });
}

bool HashFileInspector::find_wrong_hashes(kelvane_off_t offset, kelvane_buf_len_t length, TargetSource& source,
                                          const BlockHashStore::RangeFunc& onWrong,
                                          const BlockHashStore::ProgressFunc& progress)
{
    return m_store->find_wrong_hashes(offset, length, source, onWrong, progress);
}

void HashFileInspector::for_each_unknown_range(kelvane_off_t offset, kelvane_buf_len_t length,
                                               const BlockHashStore::RangeFunc& onRange)
{
    m_store->for_each_unknown_range(offset, length, onRange);
}

void HashFileInspector::for_each_unknown_range(const BlockHashStore::RangeFunc& onRange)
{
    const auto start = static_cast<kelvane_off_t>(partition_offset_in_bytes());
    const auto length = static_cast<kelvane_buf_len_t>(m_store->computeMaximumInternalOffset());
    if (start >= 0 && length > 0) {
        for_each_unknown_range(start, length, onRange);
    }
}

} // namespace kelvane
