#include <unistd.h>

#include "BlockHashStore/BlockHasher.h"
#include "BlockHashStore/Internals.h"

namespace kelvane {

// `transfer` moves so many bytes at the position, and returns how many it moved.
template <class Transfer>
void BlockHashStore::transferEntries(kelvane_ssize_t firstBlock, kelvane_ssize_t count,
                                     const TransferFailures& failures, Transfer transfer)
{
    const kelvane_ssize_t whereTo = entryOffsetInFile(firstBlock);
    const kelvane_ssize_t bytes = count * entrySize();
    if (m_file.seek(whereTo, SEEK_SET) != whereTo) {
        failWithErrno(failures.ofSeek, whereTo);
    }
    if (!validReadWrite(bytes, transfer(bytes))) {
        failWithErrno(failures.ofTransfer, failures.offset.value_or(whereTo));
    }
}

void BlockHashStore::readEntries(kelvane_ssize_t firstBlock, kelvane_ssize_t count, char* entries,
                                 const TransferFailures& failures)
{
    transferEntries(firstBlock, count, failures, [&](kelvane_ssize_t bytes) { return m_file.read(entries, bytes); });
}

void BlockHashStore::writeEntries(kelvane_ssize_t firstBlock, kelvane_ssize_t count, const char* entries,
                                  const TransferFailures& failures)
{
    transferEntries(firstBlock, count, failures,
                    [&](kelvane_ssize_t bytes) { return m_file.write(entries, static_cast<std::size_t>(bytes)); });
}

kelvane_ssize_t BlockHashStore::entryOffsetInFile(kelvane_ssize_t block) const
{
    return static_cast<kelvane_ssize_t>(m_header.dataRegionOffsetInBytes) + block * entrySize();
}

BlockHashStore::BlockHasher BlockHashStore::blockHasher(const char* failure)
{
    return {*m_hashFunction, static_cast<kelvane_ssize_t>(getBlockSize()), m_blockBuffer.get(), failure};
}

} // namespace kelvane
