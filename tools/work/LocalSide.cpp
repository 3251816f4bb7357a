#include "work/LocalSide.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <utility>

#include "base/Failure.h"
#include "base/Interrupt.h"
#include "base/Text.h"
#include "work/BlockDigests.h"
#include "work/OpenImage.h"
#include "work/Pump.h"

namespace kelvane::tool {

namespace {

constexpr int LOW = 18; // the level up to which the store hashes a node's blocks at once: bounds its memory

constexpr std::int64_t AT_ONCE = 4 << 20; // bytes that are read, so that a disk has enough to do

bool isAllZeros(const char* data, std::int64_t length)
{
    return data[0] == 0 && std::memcmp(data, data + 1, static_cast<std::size_t>(length) - 1) == 0;
}

} // namespace

LocalSide::LocalSide(const std::string& path, Image::Access access, HashFileOptions options, const Common& common,
                     const std::string& bitmap)
    : m_opened(openImage(path, access, common, options.atLink, bitmap))
    , m_image(*m_opened)
    , m_isDestination(access != Image::Access::Read)
    , m_options(std::move(options))
    , m_common(common)
{
}

const Opening& LocalSide::opening()
{
    if (!m_opening) {
        m_hashFile = HashFile::find(m_image, m_options, m_common.reporter);
        m_opening = {m_image.size(), m_image.permissions(), m_image.isMissing(), m_image.hasFixedSize(),
                     isBlank(),      hashFilePath(),        std::nullopt};
        if (m_hashFile) {
            m_opening->blockSize = static_cast<std::uint32_t>(m_hashFile->geometry().blockSize);
        }
    }
    return *m_opening;
}

// A file of no size is brought to one; only of what has a fixed size its server is asked.
bool LocalSide::isBlank() const
{
    const std::int64_t size = m_image.size();
    return m_isDestination && (m_image.hasFixedSize() ? m_image.nextData(0, size).length == 0 : size == 0);
}

// A hash file is made once the image can be what it is to describe.
HashedSide& LocalSide::openHashes(const Start& start)
{
    opening();
    m_start = start;
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
    return *this;
}

HashedSide::Effects LocalSide::effects() const
{
    const bool isNothingKnown = !m_hashed->belief().holds() || m_hashed->hashFile().wasMade();
    return {m_image.isMissing() || m_image.size() != sizeAfter(m_start), isNothingKnown,
            !m_hashed->hashFile().isWritable()};
}

// What is new is all zeros, of which nobody needs the hashes; what cannot be stored is found out here.
StartedSide& LocalSide::start(bool isFirst)
{
    m_started.isNew = opening().isBlank;
    m_isDestination ? prepare() : m_hashed->adaptToImage();
    if (!m_started.isNew && (!isFirst || !m_hashed->hashFile().isWritable())) {
        const bool believes = m_hashed->belief().holds();
        m_hashed->complete(believes ? Range {0, m_start.compared} : Range {0, m_image.size()}, "hash");
    }
    const Geometry& geometry = m_hashed->hashFile().geometry();
    m_started.partitionOffset = geometry.partitionOffset;
    m_started.bytesRead = m_hashed->traffic().read;
    m_started.newBlocks = m_hashed->newBlocks();
    m_blockSize = geometry.blockSize;
    m_compared = roundDown(m_start.compared, m_blockSize);
    return *this;
}

// Makes the destination what its hash file is to describe: there, and of that size.
void LocalSide::prepare()
{
    const std::int64_t size = sizeAfter(m_start);
    const bool fits = m_hashed->hashFile().geometry().targetSize == size;
    if (!m_started.isNew && m_image.size() == size && fits) {
        return;
    }
    Belief& belief = m_hashed->belief();
    belief.mark();
    if (m_started.isNew) {
        forgetAll();
    }
    if (m_image.isMissing()) {
        m_image.create(m_start.permissions);
        belief.look();
    }
    if (fits) {
        resizeImage(size);
    } else {
        m_hashed->resize(size, [&] { resizeImage(size); });
    }
    m_image.endWriting();
}

// Of which nothing can be wrong then.
void LocalSide::forgetAll()
{
    Belief& belief = m_hashed->belief();
    m_hashed->store().invalidate({0, m_hashed->hashFile().geometry().targetSize});
    belief.flushHashes();
    belief.startAnew();
}

void LocalSide::resizeImage(std::int64_t size)
{
    if (m_image.size() != size) {
        m_image.beginWriting();
        ImageChange change(m_hashed->belief());
        m_image.resize(size);
        disbelieveUnlessAlone(change.end());
    }
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

Digest LocalSide::digestOfBlocks(Range blocks)
{
    std::atomic<std::int64_t> bytesRead = 0; // all is known
    return m_hashed->store().hash(blocks, m_image, bytesRead);
}

// That of a high node is the hash of its low nodes' hashes.
Digest LocalSide::digestOfNode(int level, std::int64_t index)
{
    throwWhenInterrupted();
    const Range range = rangeOf(level, index);
    if (range.length == 0 || m_started.isNew) {
        return digestOf(nullptr, 0);
    }
    if (level <= LOW) {
        return digestOfBlocks(range);
    }
    const std::int64_t size = (std::int64_t {1} << LOW) * m_blockSize;
    m_lowNodes.resize(static_cast<std::size_t>(roundUp(m_compared, size) / size));
    DigestBytes digests;
    for (std::int64_t node = range.offset / size; node * size < range.end(); ++node) {
        Digest& digest = m_lowNodes[static_cast<std::size_t>(node)];
        if (digest.empty()) {
            digest = digestOfBlocks(rangeOf(LOW, node));
        }
        digests.insert(digests.end(), digest.begin(), digest.end());
    }
    return digestOfDigests(digests);
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
        digests.push_back(digestOf(data.get(), next.length));
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
    const std::int64_t longest
        = m_blockSize > LONGEST_PIECE ? std::min(AT_ONCE, m_blockSize - inBlock) : roundDown(AT_ONCE, m_blockSize);
    const std::int64_t wanted = roundUp(std::min(longest, data.end() - rest.offset), m_blockSize);
    return {{rest.offset, std::min({rest.length, longest, wanted})}, false};
}

// Read, hashed, and taken by the sink on three threads.
void LocalSide::read(const std::vector<Range>& ranges, const Sink& sink)
{
    BlockDigests learnt(m_blockSize,
                        [this](Range blocks, const DigestBytes& digests) { m_hashed->learn(blocks, digests); });
    const auto hash = [&](Piece piece, const Sink& hashed) {
        if (piece.data != nullptr && piece.range.offset % m_blockSize == 0) {
            piece.digests = digestsOf(piece.data, piece.range.length, m_blockSize);
        }
        learnt.add(piece);
        hashed(std::move(piece));
    };
    const auto readAndHash = [&](const Sink& hashed) {
        pump([&](const Sink& found) { readData(ranges, found); }, [&](Piece piece) { hash(std::move(piece), hashed); });
    };
    m_hasLearnt = true;
    pump(readAndHash, sink);
    if (ranges.size() == 1 && ranges.front().length == m_image.size()) {
        m_hashed->belief().confirm();
    }
}

void LocalSide::readData(const std::vector<Range>& ranges, const Sink& sink) const
{
    const ImageReader& reader = m_hashed->reader();
    for (Range rest : ranges) {
        while (rest.length > 0) {
            throwWhenInterrupted();
            const Next next = nextOf(rest);
            if (next.isHole) {
                sink({next.range, nullptr, {}, {}});
            } else {
                cut(next.range, std::make_shared<ImageReader::Copy>(reader.copy(next.range)), sink);
            }
            rest = between(next.range.end(), rest.end());
        }
    }
}

// Into pieces with content, and of zeros.
void LocalSide::cut(Range range, const std::shared_ptr<ImageReader::Copy>& copy, const Sink& sink) const
{
    const std::int64_t unit = std::min(m_blockSize, LONGEST_PIECE);
    Piece piece = {{range.offset, 0}, nullptr, {}, copy};
    for (Range rest = range; rest.length > 0;) {
        const Range part = takeFirst(rest, unit);
        const char* const data = copy->data + (part.offset - range.offset);
        const char* const content = isAllZeros(data, part.length) ? nullptr : data;
        const bool isSameKind = (piece.data == nullptr) == (content == nullptr);
        const bool fits = content == nullptr || piece.range.length + part.length <= LONGEST_PIECE;
        if (piece.range.length > 0 && !(isSameKind && fits)) {
            sink(piece);
            piece.range = {part.offset, 0};
        }
        piece.data = piece.range.length == 0 ? content : piece.data;
        piece.range.length += part.length;
    }
    sink(std::move(piece));
}

WritingSide& LocalSide::startWriting(bool isSparse)
{
    m_image.beginWriting();
    m_writer = std::make_unique<Writer>(m_image, *m_hashed, isSparse, m_common);
    return *this;
}

OwnChange LocalSide::finish()
{
    const OwnChange change = m_writer->finish();
    m_writer.reset();
    disbelieveUnlessAlone(change);
    m_image.endWriting();
    return change;
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
        if (m_writer && !m_hashed->belief().hasLostWrites()) {
            disbelieveUnlessAlone(m_writer->stop());
        }
        m_writer.reset(); // once its last flush has ended
        m_image.endWriting();
        if (m_hashed) {
            m_hashed->belief().flushHashes();
            m_hashed->conclude();
        }
    } catch (const std::exception&) {
        // The failure that came first is told.
    }
}

// Whose user has told what changed, and that nobody writes to it, has answered for all. What was compared with a hash
// that was wrong may differ in more than was found.
const Conclusion& LocalSide::conclude()
{
    if (std::exchange(m_hasLearnt, false)) {
        m_hashed->belief().flushHashes();
    }
    m_conclusion = m_hashed->conclude(m_whenOpened && m_common.trust == Trust::Everything);
    const std::optional<std::int64_t> wrong = m_hashed->contradictedAt();
    if (wrong && !m_hashed->belief().holds() && m_conclusion.isUnchanged && !m_conclusion.isOpenForWriting) {
        throw Failure(name(), *wrong, "its hash was wrong, though recorded as true; the next run checks them all");
    }
    return m_conclusion;
}

} // namespace kelvane::tool
