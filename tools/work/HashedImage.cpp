#include "work/HashedImage.h"

#include <algorithm>
#include <utility>

#include "base/Interrupt.h"
#include "base/Text.h"

namespace kelvane::tool {

HashedImage::HashedImage(const Image& image, HashFile hashFile, const Common& common)
    : m_image(image)
    , m_hashFile(std::move(hashFile))
    , m_common(common)
    , m_belief(image, m_hashFile, common)
    , m_reader(image, common.cache)
{
}

void HashedImage::complete(Range range, const char* phase)
{
    const bool believes = m_belief.holds();
    if (!believes && m_belief.doubt().isAny() && !std::exchange(m_isDoubtTold, true)) {
        m_common.reporter.note(m_image.path() + ": its known hashes are checked: " + m_belief.doubt().text);
    }
    const std::int64_t blockSize = store().blockSize();
    const Range all = wholeBlocks(range, blockSize);
    Slices slices(m_image, all, sliceSize(blockSize), holeSliceSize(blockSize));
    const Work work = [&](Store& store, const Blocks& blocks, const char* data) {
        blocks.isKnown ? check(store, blocks.range, data) : this->store(store, blocks.range, data);
    };
    const StartingAnew isCheck(!believes);
    try {
        const auto shown = m_common.reporter.begin(phase, all.length);
        m_traffic = forBlocks(m_hashFile, m_reader, slices, believes ? Which::Unknown : Which::All, m_common.threads(),
                              *shown, work);
    } catch (const Interrupted&) {
        keep();
        throw;
    } catch (const Failure&) {
        const LettingFinish finishing;
        if (m_belief.moment().isNamed() && !m_belief.hasLostWrites()) { // of an export, whose server may be back soon
            keep();
        }
        throw;
    }
    m_belief.flushHashes();
    if (range.length == m_image.size()) {
        m_belief.confirm();
    }
}

void HashedImage::forgetFrom(std::int64_t offset)
{
    Range rest = wholeBlocks(between(roundDown(offset, store().blockSize()), m_image.size()), store().blockSize());
    const auto forget = [&](Range known) {
        if (known.length > 0) {
            m_belief.mark();
            store().invalidate(known);
        }
    };
    for (const Range& unknown : store().unknown(rest)) {
        forget(between(rest.offset, unknown.offset));
        rest = between(unknown.end(), rest.end());
    }
    forget(rest);
    m_belief.flushHashes();
    m_belief.confirm();
}

// What is done.
void HashedImage::keep()
{
    m_belief.flushHashes();
    conclude();
}

void HashedImage::store(Store& store, Range range, const char* data)
{
    m_belief.mark();
    store.update(range, data);
    const std::scoped_lock lock(m_mutex);
    const std::int64_t end = range.end() / store.blockSize();
    for (std::int64_t i = range.offset / store.blockSize(); i < end && m_newBlocks.size() <= MOST_NEW_BLOCKS; ++i) {
        m_newBlocks.push_back(i);
    }
}

std::vector<std::int64_t> HashedImage::newBlocks() const
{
    std::vector<std::int64_t> blocks;
    if (m_newBlocks.size() <= MOST_NEW_BLOCKS) {
        blocks = m_newBlocks;
        std::sort(blocks.begin(), blocks.end());
    }
    return blocks;
}

void HashedImage::check(Store& store, Range range, const char* data)
{
    m_checked += range.length / store.blockSize();
    for (const Range& wrong : store.wrong(range, data)) {
        m_repaired += wrong.length / store.blockSize();
        this->store(store, wrong, data == nullptr ? nullptr : data + (wrong.offset - range.offset));
    }
}

void HashedImage::learn(Range blocks, const DigestBytes& digests)
{
    const auto of = [&](Range part) { return digestsOfPart(digests, blocks, part, store().blockSize()); };
    Range rest = blocks;
    for (const Range& unknown : store().unknown(blocks)) {
        const Range known = between(rest.offset, unknown.offset);
        checkKnown(known, of(known));
        m_belief.mark();
        store().store(unknown, of(unknown));
        rest = between(unknown.end(), rest.end());
    }
    checkKnown(rest, of(rest));
}

void HashedImage::checkKnown(Range blocks, const DigestBytes& digests)
{
    m_checked += m_belief.holds() ? 0 : blocks.length / store().blockSize();
    if (blocks.length == 0 || store().has(blocks, digests)) {
        return;
    }
    for (Range rest = blocks; rest.length > 0;) {
        const Range block = takeFirst(rest, store().blockSize());
        const DigestBytes own = digestsOfPart(digests, blocks, block, block.length);
        if (!store().has(block, own)) {
            if (m_belief.holds()) {
                m_belief.contradict();
                m_contradictedAt = block.offset;
            }
            m_belief.mark();
            store().store(block, own);
            ++m_repaired;
        }
    }
}

std::string HashedImage::remarks() const
{
    std::string text;
    if (m_checked > 0) {
        text = m_image.path() + ": " + counted(m_checked, "known block") + " checked, " + grouped(m_repaired)
            + " repaired\n";
    }
    if (m_belief.isDisturbed()) {
        text += m_hashFile.path() + ": was changed or replaced by something else while this ran\n";
    }
    return text;
}

Conclusion HashedImage::conclude(bool isAnsweredFor)
{
    Conclusion found = m_belief.conclude(isAnsweredFor);
    found.isAnsweredFor = isAnsweredFor || m_common.trust == Trust::Everything;
    found.isBelieved = !m_belief.doubt().isAny();
    found.doubt = m_belief.doubt().text;
    found.checkedBlocks = m_checked;
    found.repairedBlocks = m_repaired;
    found.remarks = remarks();
    return found;
}

} // namespace kelvane::tool
