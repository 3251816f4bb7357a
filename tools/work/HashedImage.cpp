#include "work/HashedImage.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <utility>

#include "base/Failure.h"
#include "base/Interrupt.h"
#include "image/ExclusiveUse.h"
#include "terminal/Text.h"

namespace kelvane::tool {

namespace {

constexpr const char* CHANGED = "it was changed since";

ImageState flushedState(const Image& image, ProgressMode mode)
{
    Progress progress("flush", 0, mode == ProgressMode::Json ? ProgressMode::None : mode);
    progress.announce();
    return stateOf(image);
}

} // namespace

HashedImage::HashedImage(const Image& image, HashFile hashFile, const Common& common)
    : m_image(image)
    , m_hashFile(std::move(hashFile))
    , m_common(common)
    , m_state(image.isMissing() ? ImageState() : flushedState(image, common.progress))
    , m_doubt(judge())
    , m_believes(m_doubt.empty())
{
}

std::string HashedImage::judge() const
{
    const std::optional<Evidence>& evidence = m_hashFile.evidence();
    if (m_hashFile.wasCreated() || m_common.trust == Trust::Everything) {
        return "";
    }
    if (m_common.trust == Trust::Nothing) {
        return "that was asked for";
    }
    if (!evidence) {
        return "no record says that they are true of it";
    }
    if (!evidence->isClean) {
        return "the last run was cut short, or it was changed while that ran";
    }
    if (!m_hashFile.isAsRecorded()) {
        return "the hash file was changed or replaced since they were recorded as true";
    }
    if (m_image.isMissing() || ownerOf(*evidence, m_state) != Owner::Same) {
        return "another image has taken its place";
    }
    if (!m_state.doubt.empty()) {
        return m_state.doubt;
    }
    if (evidence->image.content["boot"] != m_state.content["boot"]) {
        return "the machine was started again since";
    }
    return evidence->image.isSame(m_state) ? "" : CHANGED;
}

bool HashedImage::wasOnlyChanged() const
{
    return m_doubt == CHANGED;
}

void HashedImage::noteDoubt() const
{
    std::fprintf(stderr, "kelvane-hash: note: %s: its known hashes are checked: %s\n", m_image.path().c_str(),
                 m_doubt.c_str());
}

void HashedImage::complete(Range range, const char* phase)
{
    if (!m_believes && !m_doubt.empty()) {
        noteDoubt();
    }
    const std::int64_t blockSize = store().blockSize();
    const Range blocks = wholeBlocks(range, blockSize);
    RangeSource source(m_image, blocks, sliceSize(blockSize), holeSliceSize(blockSize));
    Check checker(m_image, blockSize);
    const Work work = [&](Store& store, const Piece& piece, char* data) {
        piece.isKnown ? check(store, checker, piece.range, data) : this->store(store, piece.range, data);
    };
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
        m_hashFile.record(m_state, false);
        m_isMarked = true;
    }
}

bool HashedImage::isUnchanged() const
{
    return m_state.isSame(stateOf(m_image));
}

void HashedImage::takeState()
{
    m_state = stateOf(m_image);
}

bool HashedImage::changeImage(const std::function<void()>& change)
{
    const ExclusiveUse use(m_image);
    const bool wasUnchanged = isUnchanged();
    change();
    takeState(); // which flushes it
    return wasUnchanged && !use.wasShared();
}

bool HashedImage::conclude()
{
    const ImageState now = stateOf(m_image);
    if (!m_state.isSame(now)) {
        markChanging();
        return false;
    }
    m_state.doubt = now.doubt; // whether a device counts is seen once it was read
    const std::optional<Evidence>& evidence = m_hashFile.evidence();
    const bool isRecorded
        = !m_isMarked && evidence && evidence->isClean && m_hashFile.isAsRecorded() && evidence->image.isSame(m_state);
    if (m_believes && !isRecorded && m_hashFile.isWritable() && m_state.doubt.empty()) {
        m_hashFile.record(m_state, true);
        m_isMarked = false;
    }
    return true;
}

std::string HashedImage::text() const
{
    return m_checked == 0 ? ""
                          : m_image.path() + ": " + counted(m_checked, "known block") + " checked, "
            + grouped(m_repaired) + " repaired\n";
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
