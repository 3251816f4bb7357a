#include "work/LocalSide.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <kelvane/BlakeHash.h>
#include <utility>

#include "base/Failure.h"
#include "base/Interrupt.h"
#include "base/Text.h"

namespace kelvane::tool {

namespace {

constexpr int LOW = 18; // the level up to which the store hashes a node's blocks at once: bounds its memory

bool isAllZeros(const char* data, std::int64_t length)
{
    return data[0] == 0 && std::memcmp(data, data + 1, static_cast<std::size_t>(length) - 1) == 0;
}

} // namespace

Image openImage(const std::string& path, Image::Access access, AtLink atLink)
{
    Image image(path, access, atLink);
    if (!image.isMissing() && isHashFile(image.file().place())) {
        throw Failure(path, "this is a hash file, not an image");
    }
    if (!image.isMissing() && isRecord(image.file())) {
        throw Failure(path, "this is the record beside a hash file, not an image");
    }
    return image;
}

LocalSide::LocalSide(const std::string& path, Image::Access access, HashFileOptions options, const Common& common)
    : m_image(openImage(path, access, options.atLink))
    , m_isDestination(access != Image::Access::Read)
    , m_options(std::move(options))
    , m_common(common)
{
}

const Opening& LocalSide::opening()
{
    if (!m_opening) {
        m_hashFile = HashFile::find(m_image, m_options, m_common.reporter);
        m_opening = {m_image.size(),          m_image.permissions(), m_image.isMissing(),
                     m_image.isBlockDevice(), hashFilePath(),        std::nullopt};
        if (m_hashFile) {
            m_opening->blockSize = static_cast<std::uint32_t>(m_hashFile->geometry().blockSize);
        }
    }
    return *m_opening;
}

// A hash file is made once the image can be what it is to describe.
void LocalSide::openHashes(const Start& start)
{
    opening();
    m_options.blockSize = start.blockSize;
    const std::int64_t size = sizeAfter(start);
    if (m_isDestination) {
        m_image.checkSize(size);
    }
    m_hashed.emplace(
        m_image,
        HashFile::foundOrMade(std::exchange(m_hashFile, std::nullopt), m_image, m_options, size, m_common.reporter),
        m_common);
    if (m_whenOpened) {
        m_whenOpened(*m_hashed);
    }
}

void LocalSide::start(const Start& start)
{
    m_isDestination ? prepare(start) : m_hashed->adaptToImage();
    const bool believes = m_hashed->belief().holds();
    m_hashed->complete(believes ? Range {0, start.compared} : Range {0, m_image.size()}, "hash");
    const Geometry& geometry = m_hashed->hashFile().geometry();
    m_started = {geometry.partitionOffset, m_hashed->traffic().read, m_hashed->newBlocks()};
    m_blockSize = geometry.blockSize;
    m_compared = roundDown(start.compared, m_blockSize);
}

// Makes the destination what its hash file is to describe: there, and of that size.
void LocalSide::prepare(const Start& start)
{
    const std::int64_t size = sizeAfter(start);
    const bool fits = m_hashed->hashFile().geometry().targetSize == size;
    if (!m_image.isMissing() && m_image.size() == size && fits) {
        return;
    }
    Belief& belief = m_hashed->belief();
    belief.mark();
    if (m_image.isMissing()) {
        m_image.create(start.permissions);
        belief.dismissAll();
        belief.look();
    }
    const auto resizeImage = [&] {
        if (m_image.size() != size) {
            belief.beginWriting(m_image);
            disbelieveUnlessAlone(belief.changeImage([&] { m_image.resize(size); }));
        }
    };
    if (fits) {
        resizeImage();
    } else {
        m_hashed->resize(size, resizeImage);
    }
    m_image.endWriting();
}

Range LocalSide::rangeOf(int level, std::int64_t index) const
{
    const std::int64_t blocks = m_compared / m_blockSize;
    if (index > blocks >> level) { // behind the end
        return between(m_compared, m_compared);
    }
    const auto position = [&](std::int64_t node) {
        return node > blocks >> level ? m_compared : std::min(m_compared, (node << level) * m_blockSize);
    };
    return between(position(index), position(index + 1));
}

Digest LocalSide::digestOf(Range blocks)
{
    std::atomic<std::int64_t> bytesRead = 0; // all is known
    return m_hashed->store().hash(blocks, m_image, bytesRead);
}

// That of a high node is the hash of its low nodes' hashes.
Digest LocalSide::digestOfNode(int level, std::int64_t index)
{
    throwWhenInterrupted();
    const Range range = rangeOf(level, index);
    if (range.length == 0) {
        return BlakeHash().get_hash(nullptr, 0);
    }
    if (level <= LOW) {
        return digestOf(range);
    }
    const std::int64_t size = (std::int64_t {1} << LOW) * m_blockSize;
    m_lowNodes.resize(static_cast<std::size_t>(roundUp(m_compared, size) / size));
    std::vector<unsigned char> digests;
    for (std::int64_t node = range.offset / size; node * size < range.end(); ++node) {
        Digest& digest = m_lowNodes[static_cast<std::size_t>(node)];
        if (digest.empty()) {
            digest = digestOf(rangeOf(LOW, node));
        }
        digests.insert(digests.end(), digest.begin(), digest.end());
    }
    return BlakeHash().get_hash(digests.data(), std::ssize(digests));
}

void LocalSide::ask(const Nodes& nodes)
{
    std::vector<Digest>& digests = m_digests.emplace_back();
    for (const std::int64_t index : nodes.indexes) {
        digests.push_back(digestOfNode(nodes.level, index));
    }
}

void LocalSide::askBytes(Range range, std::int64_t unit)
{
    std::vector<Digest>& digests = m_digests.emplace_back();
    while (range.length > 0) {
        throwWhenInterrupted();
        const Range next = takeFirst(range, unit);
        const ImageData data(m_hashed->reader(), next);
        digests.push_back(BlakeHash().get_hash(const_cast<char*>(data.get()), next.length)); // which is only read
        data.check();
    }
}

std::vector<Digest> LocalSide::digests()
{
    std::vector<Digest> oldest = std::move(m_digests.front());
    m_digests.pop_front();
    return oldest;
}

// How much of a range comes next: a hole of whole blocks; or data, of whole blocks too where some fit into a piece, and
// otherwise of one block alone.
LocalSide::Next LocalSide::nextOf(Range rest) const
{
    const Range data = m_image.nextData(rest.offset, rest.end());
    const std::int64_t inBlock = rest.offset % m_blockSize;
    const std::int64_t hole = inBlock == 0 ? roundDown(data.offset - rest.offset, m_blockSize) : 0;
    if (hole > 0) {
        return {{rest.offset, std::min(hole, holeSliceSize(m_blockSize))}, true};
    }
    const std::int64_t longest = m_blockSize > LONGEST_PIECE ? std::min(LONGEST_PIECE, m_blockSize - inBlock)
                                                             : roundDown(LONGEST_PIECE, m_blockSize);
    const std::int64_t wanted = roundUp(std::min(longest, data.end() - rest.offset), m_blockSize);
    return {{rest.offset, std::min({rest.length, longest, wanted})}, false};
}

void LocalSide::read(const std::vector<Range>& ranges, bool withDigests, const Sink& sink)
{
    for (Range rest : ranges) {
        while (rest.length > 0) {
            throwWhenInterrupted();
            const Next next = nextOf(rest);
            next.isHole ? sink({next.range, nullptr, {}}) : readData(next.range, withDigests, sink);
            rest = between(next.range.end(), rest.end());
        }
    }
}

// In pieces with content, and of zeros.
void LocalSide::readData(Range range, bool withDigests, const Sink& sink)
{
    const std::int64_t unit = std::min(m_blockSize, LONGEST_PIECE);
    const ImageData data(m_hashed->reader(), range);
    std::vector<Piece> pieces;
    for (std::int64_t at = 0; at < range.length; at += unit) {
        const std::int64_t length = std::min(unit, range.length - at);
        const char* const content = isAllZeros(data.get() + at, length) ? nullptr : data.get() + at;
        if (at > 0 && (pieces.back().data == nullptr) == (content == nullptr)) {
            pieces.back().range.length += length;
        } else {
            pieces.push_back({{range.offset + at, length}, content, {}});
        }
    }
    for (Piece& piece : pieces) {
        if (withDigests && piece.data != nullptr && piece.range.length % m_blockSize == 0) {
            piece.digest = digestOf(piece.range);
        }
        sink(piece);
    }
    data.check();
}

void LocalSide::startWriting(bool isSparse)
{
    m_hashed->belief().beginWriting(m_image);
    m_copier = std::make_unique<Copier>(m_image, *m_hashed, isSparse);
}

OwnChange LocalSide::finishWriting()
{
    m_copier->flush();
    if (!m_copier->isSparse()) {
        m_copier->fillHoles(*m_common.reporter.begin("fill", m_image.size()));
    }
    m_hashed->belief().flushHashes();
    disbelieveUnlessAlone(m_copier->ownChange());
    m_image.endWriting();
    return m_copier->ownChange();
}

// What others changed meanwhile is in no hash.
void LocalSide::disbelieveUnlessAlone(const OwnChange& change)
{
    if (!change.wasUnchanged || !change.wasAlone) {
        m_hashed->belief().dismiss();
    }
}

void LocalSide::abandon()
{
    const LettingFinish finishing;
    try {
        if (m_copier && !m_hashed->belief().hasLostWrites()) {
            m_copier->dropPartOfBlock();
            m_copier->flush();
            disbelieveUnlessAlone(m_copier->ownChange());
        }
        m_image.endWriting();
        if (m_hashed) {
            m_hashed->belief().flushHashes();
            m_hashed->conclude();
        }
    } catch (const std::exception&) {
        // The failure that came first is told.
    }
}

// Whose user has told what changed, and that nobody writes to it, has answered for all.
const Conclusion& LocalSide::conclude()
{
    return m_conclusion = m_hashed->conclude(m_whenOpened && m_common.trust == Trust::Everything);
}

void LocalSide::distrust()
{
    m_hashed->belief().contradict();
}

} // namespace kelvane::tool
