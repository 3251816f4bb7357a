#include <cstdlib>
#include <new>
#include <utility>

#include "BlockHashStore/Internals.h"

namespace kelvane {

BlockHashStore::BlockHashStore()
    : m_file(SimpleCachedReader::CACHE_BUFFER_SIZE_IN_BYTES)
{
    init();
}

BlockHashStore::~BlockHashStore() = default;

BlockHashStore::BlockHashStore(BlockHashStore&& other) noexcept
    : m_header(other.m_header)
    , m_file(std::move(other.m_file))
    , m_hashBuffer(std::move(other.m_hashBuffer))
    , m_hashBufferSize(std::exchange(other.m_hashBufferSize, 0))
    , m_hashFunction(std::move(other.m_hashFunction))
    , m_blockBuffer(std::move(other.m_blockBuffer))
{
}

BlockHashStore& BlockHashStore::operator=(BlockHashStore&& other) noexcept
{
    if (this != &other) {
        m_header = other.m_header;
        m_file = std::move(other.m_file);
        m_hashBuffer = std::move(other.m_hashBuffer);
        m_hashBufferSize = std::exchange(other.m_hashBufferSize, 0);
        m_hashFunction = std::move(other.m_hashFunction);
        m_blockBuffer = std::move(other.m_blockBuffer);
    }
    return *this;
}

void BlockHashStore::init()
{
    m_hashBuffer.reset();
    m_hashBufferSize = 0;
    m_header = Header();
}

kelvane_size_t BlockHashStore::target_size_in_bytes() const
{
    return m_header.targetSizeInBytes;
}

kelvane_size_t BlockHashStore::partition_offset_in_bytes() const
{
    return m_header.partitionOffset;
}

uint32_t BlockHashStore::getBlockSize() const
{
    return m_header.blockSizeInBytes;
}

HashFunctionType BlockHashStore::getHashFunctionType() const
{
    return m_hashFunction->hash_id();
}

void BlockHashStore::setOnWriteCallback(DataTransferMetricFunc on_write)
{
    m_file.setOnWriteCallback(std::move(on_write));
}

void BlockHashStore::setOnReadCallback(DataTransferMetricFunc on_read)
{
    m_file.setOnReadCallback(std::move(on_read));
}

bool BlockHashStore::sync_to_disk()
{
    return m_file.fsync() == 0;
}

void BlockHashStore::FreeMemory::operator()(char* array) const
{
    std::free(array);
}

// A large one comes as untouched pages, and what is only read of them takes no memory.
std::unique_ptr<char[], BlockHashStore::FreeMemory> BlockHashStore::makeZeroedBlock(uint32_t blockSize)
{
    std::unique_ptr<char[], FreeMemory> block(static_cast<char*>(std::calloc(blockSize, 1)));
    if (!block) {
        throw std::bad_alloc();
    }
    return block;
}

void BlockHashStore::growHashBufferWhenNeeded(kelvane_buf_len_t sizeRequested)
{
    if (m_hashBufferSize < sizeRequested) {
        m_hashBuffer = std::make_unique_for_overwrite<char[]>(static_cast<std::size_t>(sizeRequested));
        m_hashBufferSize = sizeRequested;
    }
}

} // namespace kelvane
