#include "work/Compare.h"

#include <filesystem>

#include "base/Failure.h"
#include "base/Interrupt.h"
#include "work/Blocks.h"

namespace kelvane::tool {

namespace {

constexpr std::int64_t BLOCKS_AT_ONCE = 1 << 20; // bounds the memory: both stores keep 33 bytes for each

class Halving {
public:
    Halving(Side first, Side second, Comparison& result)
        : m_first(first)
        , m_second(second)
        , m_blockSize(first.hashFile.store().blockSize())
        , m_result(result)
    {
    }

    void compare(Range range)
    {
        if (differs(range)) {
            split(range);
        }
    }

    std::int64_t bytesRead() const { return m_bytesRead; }

private:
    bool differs(Range range)
    {
        throwWhenInterrupted();
        ++m_result.comparisons;
        return m_first.hashFile.store().hash(range, m_first.image, m_bytesRead)
            != m_second.hashFile.store().hash(range, m_second.image, m_bytesRead);
    }

    // The range is known to differ somewhere.
    void split(Range range)
    {
        if (range.length <= m_blockSize) {
            append(m_result.differing, range);
            return;
        }
        const std::int64_t middle = range.offset + roundUp(range.length / 2, m_blockSize);
        const Range left = between(range.offset, middle);
        const Range right = between(middle, range.end());
        const bool leftDiffers = differs(left);
        if (leftDiffers) {
            split(left);
        }
        if (!leftDiffers || differs(right)) { // when the left half does not differ, the right one does
            split(right);
        }
    }

    Side m_first;
    Side m_second;
    std::int64_t m_blockSize;
    Comparison& m_result;
    std::atomic<std::int64_t> m_bytesRead = 0;
};

std::optional<std::uint32_t> existingBlockSize(const Image& image, const HashFileOptions& options)
{
    std::error_code error;
    if (!std::filesystem::exists(options.pathFor(image), error)) {
        return std::nullopt;
    }
    return HashFile(options.pathFor(image)).header().blockSize;
}

// A hash file that has to be made takes its block size from the other one.
HashFileOptions withBlockSize(HashFileOptions options, std::optional<std::uint32_t> blockSize)
{
    if (!options.blockSize) {
        options.blockSize = blockSize;
    }
    return options;
}

} // namespace

HashFilePair::HashFilePair(const Image& firstImage, const HashFileOptions& firstOptions, const Image& secondImage,
                           const HashFileOptions& secondOptions)
    : first(
        HashFile::openOrCreate(firstImage, withBlockSize(firstOptions, existingBlockSize(secondImage, secondOptions))))
    , second(HashFile::openOrCreate(secondImage, withBlockSize(secondOptions, first.header().blockSize)))
{
}

Comparison compare(Side first, Side second, const Common& common)
{
    const Range range = {0, std::min(first.image.size(), second.image.size())};
    Comparison result;
    for (const Side& side : {first, second}) {
        result.bytesRead += fillUnknown(side.hashFile, side.image, range, common.jobs, common.progress, "hash").read;
    }
    const std::int64_t blockSize = first.hashFile.store().blockSize();
    const Range whole = wholeBlocks(range, blockSize);
    Halving halving(first, second, result);
    for (std::int64_t at = 0; at < whole.length; at += BLOCKS_AT_ONCE * blockSize) {
        halving.compare(between(at, std::min(whole.length, at + BLOCKS_AT_ONCE * blockSize)));
    }
    if (whole.length < range.length) {
        halving.compare(between(whole.length, range.length)); // a partial block takes data, so it goes alone
    }
    result.bytesRead += halving.bytesRead();
    return result;
}

} // namespace kelvane::tool
