#include "work/HashedImage.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <utility>

#include "base/Failure.h"
#include "base/Interrupt.h"
#include "image/ExclusiveUse.h"
#include "terminal/Note.h"
#include "terminal/Text.h"

namespace kelvane::tool {

HashedImage::HashedImage(const Image& image, HashFile hashFile, const Common& common)
    : m_image(image)
    , m_hashFile(std::move(hashFile))
    , m_common(common)
{
    if (!image.isMissing()) {
        takeState();
    }
    m_doubt = judge();
    m_believes = m_doubt.empty();
    if (common.trust == Trust::Everything && !m_hashFile.wasCreated() && !m_hashFile.doubtAbout(m_state).empty()) {
        m_recording = Recording::Doubt;
    }
}

std::string HashedImage::judge() const
{
    if (m_hashFile.wasCreated() || m_common.trust == Trust::Everything) {
        return "";
    }
    return m_common.trust == Trust::Nothing ? "that was asked for" : m_hashFile.doubtAbout(m_state);
}

ImageState HashedImage::currentState() const
{
    Progress progress("flush", 0, m_common.progress);
    progress.announce();
    return stateOf(m_image);
}

bool HashedImage::wasOnlyChanged() const
{
    return m_doubt == CHANGED;
}

void HashedImage::noteDoubt() const
{
    note(m_image.path() + ": its known hashes are checked: " + m_doubt);
}

void HashedImage::complete(Range range, const char* phase)
{
    if (!m_believes && !m_doubt.empty()) {
        noteDoubt();
    }
    if (!m_believes && m_image.isBlockDevice()) {
        m_image.dropCache(); // what holds it may have been changed past it
    }
    const std::int64_t blockSize = store().blockSize();
    const Range blocks = wholeBlocks(range, blockSize);
    RangeSource source(m_image, blocks, sliceSize(blockSize), holeSliceSize(blockSize));
    Check checker(m_image, blockSize);
    const Work work = [&](Store& store, const Piece& piece, char* data) {
        piece.isKnown ? check(store, checker, piece.range, data) : this->store(store, piece.range, data);
    };
    const StartingAnew isCheck(!m_believes);
    try {
        Progress progress(phase, blocks.length, m_common.progress);
        m_traffic = forBlocks(m_hashFile, m_image, source, m_believes ? Which::Unknown : Which::All, m_common.jobs,
                              progress, work);
    } catch (const Interrupted&) {
        flushHashes(); // what is done is kept
        conclude();
        throw;
    }
    flushHashes();
    m_believes = m_believes || range.length == m_image.size();
}

void HashedImage::store(Store& store, Range range, char* data)
{
    markChanging();
    data == nullptr ? store.zero(range) : store.update(range, data);
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

void HashedImage::check(Store& store, Check& checker, Range range, char* data)
{
    m_checked += range.length / store.blockSize();
    for (const Range& wrong : checker.wrongBlocks(store, range, data)) {
        m_repaired += wrong.length / store.blockSize();
        this->store(store, wrong, data == nullptr ? nullptr : data + (wrong.offset - range.offset));
    }
}

void HashedImage::flushHashes()
{
    if (m_isMarked) {
        Progress progress("flush", 0, m_common.progress);
        progress.announce();
        store().sync();
    }
}

void HashedImage::markChanging()
{
    const std::scoped_lock lock(m_mutex);
    if (!m_isMarked && m_hashFile.isWritable()) {
        m_isDisturbed = m_isDisturbed || !m_hashFile.isUntouched();
        m_isMarked = true;
        if (m_recording != Recording::Nothing) {
            m_hashFile.record(m_state, false);
        }
    }
}

// With the size that this run works with: if the image has another one already, it will never be found unchanged.
void HashedImage::takeState()
{
    m_state = currentState();
    m_state.content["size"] = m_image.size();
}

// Of a device the system tells how much was written to it.
OwnChange HashedImage::changeImage(const std::function<void()>& change)
{
    const ExclusiveUse use(m_image);
    const ImageState before = currentState();
    const bool wasUnchanged = m_state.isSame(before);
    const std::int64_t written = m_image.bytesWritten();
    change();
    takeState(); // which flushes it
    const auto sectors = [](const ImageState& state) { return state.content.value("written", std::int64_t {0}); };
    const bool wasAlone = m_image.isBlockDevice()
        ? m_state.doubt.empty() && (sectors(m_state) - sectors(before)) * 512 == m_image.bytesWritten() - written
        : use.isGranted();
    return {wasUnchanged, wasAlone};
}

bool HashedImage::conclude()
{
    const ImageState now = currentState();
    m_isDisturbed = m_isDisturbed || !(m_isMarked ? m_hashFile.isInPlace() : m_hashFile.isUntouched());
    if (!m_state.isSame(now) || m_isDisturbed) {
        markChanging();
        return false;
    }
    m_state.doubt = now.doubt; // whether a device counts is seen once it was read
    const bool isRecorded = !m_isMarked && m_hashFile.doubtAbout(m_state).empty();
    if (m_believes && m_recording == Recording::All && !isRecorded && m_hashFile.isWritable()
        && m_state.doubt.empty()) {
        m_hashFile.record(m_state, true);
        m_isMarked = false;
    }
    return true;
}

std::string HashedImage::text() const
{
    std::string text;
    if (m_checked > 0) {
        text = m_image.path() + ": " + counted(m_checked, "known block") + " checked, " + grouped(m_repaired)
            + " repaired\n";
    }
    if (m_isDisturbed) {
        text += m_hashFile.path() + ": was changed or replaced by something else while this ran\n";
    }
    return text;
}

nlohmann::ordered_json HashedImage::json() const
{
    return {{"image", m_image.path()},
            {"believed", m_doubt.empty()},
            {"doubt", m_doubt},
            {"checkedBlocks", m_checked.load()},
            {"repairedBlocks", m_repaired.load()}};
}

} // namespace kelvane::tool
