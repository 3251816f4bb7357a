#include "remote/Messages.h"

#include <algorithm>

#include "work/HashedImage.h"

namespace kelvane::tool {

namespace {

constexpr std::uint32_t MOST_PERMISSIONS = 0777;
constexpr std::int64_t GREATEST = std::numeric_limits<std::int64_t>::max();

void optional(FieldWriter& to, const std::optional<std::int64_t>& value)
{
    to.flag(value.has_value()).i64(value.value_or(0));
}

std::optional<std::int64_t> optional(FieldReader& from)
{
    const bool isThere = from.flag();
    const std::int64_t value = from.i64();
    return isThere ? std::optional(value) : std::nullopt;
}

template <class Read>
auto decodeAll(std::string_view payload, Read read)
{
    FieldReader from(payload);
    auto value = read(from);
    from.end();
    return value;
}

FieldWriter& encodeIndexes(FieldWriter& to, const std::vector<std::int64_t>& indexes)
{
    to.u32(static_cast<std::uint32_t>(indexes.size()));
    for (const std::int64_t index : indexes) {
        to.i64(index);
    }
    return to;
}

// Ascending ones.
std::vector<std::int64_t> indexesFrom(FieldReader& from, std::size_t mostIndexes, std::int64_t most)
{
    const auto count = atMost(from.u32(), static_cast<std::uint32_t>(mostIndexes), "indexes");
    std::vector<std::int64_t> indexes;
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::int64_t index = from.i64(most);
        if (!indexes.empty() && index <= indexes.back()) {
            throw ProtocolError("indexes are out of order");
        }
        indexes.push_back(index);
    }
    return indexes;
}

} // namespace

std::string Hello::encode() const
{
    return FieldWriter().u32(MAGIC).u32(version).u32(capabilities).u32(timeout).done();
}

// What follows the version may differ in other versions.
Hello Hello::decode(std::string_view payload)
{
    FieldReader from(payload);
    Hello hello;
    if (from.u32() != MAGIC) {
        throw ProtocolError("no kelvane-hash");
    }
    hello.version = from.u32();
    if (hello.version != VERSION) {
        throw ProtocolError("it speaks version " + std::to_string(hello.version) + " of the protocol, this program "
                            + std::to_string(VERSION));
    }
    hello.capabilities = from.u32();
    hello.timeout = std::clamp(from.u32(), 1U, 86400U);
    from.end();
    return hello;
}

std::string Open::encode() const
{
    FieldWriter to;
    to.string(path).string(hashFile).flag(isDestination).flag(adopts).u8(static_cast<std::uint8_t>(trust));
    to.flag(cache == Cache::Keep);
    to.u32(jobs);
    optional(to, partitionOffset);
    return to.u32(compression).i64(bytesPerSecond).done();
}

Open Open::decode(std::string_view payload)
{
    return decodeAll(payload, [](FieldReader& from) {
        Open open;
        open.path = from.string();
        open.hashFile = from.string();
        open.isDestination = from.flag();
        open.adopts = from.flag();
        open.trust = static_cast<Trust>(atMost<int>(from.u8(), static_cast<int>(Trust::Everything), "trust"));
        open.cache = from.flag() ? Cache::Keep : Cache::LeaveAsFound;
        open.jobs = atMost(from.u32(), 1024U, "jobs");
        open.partitionOffset = optional(from);
        open.compression = atMost(from.u32(), 19U, "compression");
        open.bytesPerSecond = from.i64();
        return open;
    });
}

std::string encode(const Opening& opening)
{
    FieldWriter to;
    to.i64(opening.size).u32(opening.permissions).flag(opening.isMissing).flag(opening.hasFixedSize);
    to.string(opening.hashFile);
    return to.u32(opening.blockSize.value_or(0)).done();
}

Opening decodeOpening(std::string_view payload)
{
    return decodeAll(payload, [](FieldReader& from) {
        Opening opening;
        opening.size = from.i64(GREATEST / 2);
        opening.permissions = atMost(from.u32(), MOST_PERMISSIONS, "permissions");
        opening.isMissing = from.flag();
        opening.hasFixedSize = from.flag();
        opening.isBlank = !opening.hasFixedSize && opening.size == 0;
        opening.hashFile = from.string();
        const std::uint32_t blockSize = from.u32();
        opening.blockSize = blockSize == 0 ? std::nullopt : std::optional(blockSize);
        if (opening.isMissing && (opening.size != 0 || opening.hasFixedSize)) {
            throw ProtocolError("an image that is missing and is not");
        }
        return opening;
    });
}

std::string StartSide::encode() const
{
    FieldWriter to;
    to.u32(start.blockSize).i64(start.targetSize).u32(start.permissions).i64(start.compared);
    return to.flag(isFirst).done();
}

StartSide StartSide::decode(std::string_view payload)
{
    return decodeAll(payload, [](FieldReader& from) {
        StartSide side;
        Start& start = side.start;
        start.blockSize = from.u32();
        if (start.blockSize == 0) {
            throw ProtocolError("blocks of 0 bytes");
        }
        start.targetSize = from.i64();
        start.permissions = atMost(from.u32(), MOST_PERMISSIONS, "permissions");
        start.compared = from.i64();
        side.isFirst = from.flag();
        return side;
    });
}

std::string encode(const Started& started)
{
    FieldWriter to;
    to.i64(started.partitionOffset).i64(started.bytesRead).flag(started.isNew);
    return encodeIndexes(to, started.newBlocks).done();
}

Started decodeStarted(std::string_view payload)
{
    return decodeAll(payload, [](FieldReader& from) {
        Started started;
        started.partitionOffset = from.i64(GREATEST / 2);
        started.bytesRead = from.i64(GREATEST / 4); // so that sums are none too large
        started.isNew = from.flag();
        started.newBlocks = indexesFrom(from, HashedImage::MOST_NEW_BLOCKS, GREATEST);
        return started;
    });
}

std::string AskNodes::encode() const
{
    FieldWriter to;
    to.flag(mayBeLast).u32(static_cast<std::uint32_t>(nodes.level));
    return encodeIndexes(to, nodes.indexes).done();
}

AskNodes AskNodes::decode(std::string_view payload)
{
    return decodeAll(payload, [](FieldReader& from) {
        AskNodes ask;
        ask.mayBeLast = from.flag();
        ask.nodes.level = static_cast<int>(atMost<std::uint32_t>(from.u32(), Nodes::HIGHEST, "level"));
        ask.nodes.indexes = indexesFrom(from, StartedSide::MOST_NODES, GREATEST >> ask.nodes.level);
        return ask;
    });
}

std::string AskBytes::encode() const
{
    return FieldWriter().i64(range.offset).i64(range.length).i64(unit).done();
}

AskBytes AskBytes::decode(std::string_view payload)
{
    return decodeAll(payload, [](FieldReader& from) {
        const Range range = from.range();
        const std::int64_t unit = from.i64();
        constexpr auto MOST = static_cast<std::int64_t>(StartedSide::MOST_NODES);
        if (unit == 0 || (range.length > 0 && (range.length - 1) / unit >= MOST)) {
            throw ProtocolError("units of " + std::to_string(unit) + " bytes");
        }
        return AskBytes {range, unit};
    });
}

void encode(FieldWriter& to, const Conclusion& conclusion)
{
    to.flag(conclusion.isUnchanged).flag(conclusion.isOpenForWriting);
    to.u32(static_cast<std::uint32_t>(conclusion.writers.size()));
    for (const Program& program : conclusion.writers) {
        to.i64(program.process).string(program.command);
    }
    to.flag(conclusion.isBelieved).string(conclusion.doubt).i64(conclusion.checkedBlocks);
    to.i64(conclusion.repairedBlocks).flag(conclusion.isRecorded).string(conclusion.remarks);
}

Conclusion decodeConclusion(FieldReader& from)
{
    constexpr std::uint32_t MOST_PROGRAMS = 256;
    Conclusion conclusion;
    conclusion.isUnchanged = from.flag();
    conclusion.isOpenForWriting = from.flag();
    const std::uint32_t count = atMost(from.u32(), MOST_PROGRAMS, "programs");
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::int64_t process = from.i64();
        conclusion.writers.push_back({process, from.string()});
    }
    conclusion.isBelieved = from.flag();
    conclusion.doubt = from.string();
    conclusion.checkedBlocks = from.i64();
    conclusion.repairedBlocks = from.i64();
    conclusion.isRecorded = from.flag();
    conclusion.remarks = from.string();
    return conclusion;
}

void encode(FieldWriter& to, const std::optional<Conclusion>& conclusion)
{
    to.flag(conclusion.has_value());
    if (conclusion) {
        encode(to, *conclusion);
    }
}

std::optional<Conclusion> decodeOptionalConclusion(FieldReader& from)
{
    return from.flag() ? std::optional(decodeConclusion(from)) : std::nullopt;
}

std::string Digests::encode() const
{
    FieldWriter to;
    to.u32(static_cast<std::uint32_t>(digests.size()));
    for (const Digest& digest : digests) {
        to.bytes(digest.data(), digest.size());
    }
    tool::encode(to, conclusion);
    return to.done();
}

Digests Digests::decode(std::string_view payload)
{
    return decodeAll(payload, [](FieldReader& from) {
        Digests answer;
        const std::uint32_t count = atMost<std::uint32_t>(from.u32(), StartedSide::MOST_NODES, "digests");
        for (std::uint32_t i = 0; i < count; ++i) {
            answer.digests.push_back(from.digest());
        }
        answer.conclusion = decodeOptionalConclusion(from);
        return answer;
    });
}

std::string Ranges::encode() const
{
    FieldWriter to;
    to.flag(isLast);
    for (const Range& range : ranges) {
        to.i64(range.offset).i64(range.length);
    }
    return to.done();
}

Ranges Ranges::decode(std::string_view payload, std::int64_t size)
{
    return decodeAll(payload, [&](FieldReader& from) {
        Ranges read;
        read.isLast = from.flag();
        for (std::size_t i = 0; i < payload.size() / 16; ++i) {
            const Range range = from.range(size);
            if (range.length == 0 || (!read.ranges.empty() && range.offset < read.ranges.back().end())) {
                throw ProtocolError("ranges are empty or out of order");
            }
            read.ranges.push_back(range);
        }
        return read;
    });
}

std::string encodeStartWriting(bool isSparse)
{
    return FieldWriter().flag(isSparse).done();
}

bool decodeStartWriting(std::string_view payload)
{
    return decodeAll(payload, [](FieldReader& from) { return from.flag(); });
}

std::string Written::encode() const
{
    FieldWriter to;
    to.flag(change.wasUnchanged).flag(change.wasAlone);
    tool::encode(to, conclusion);
    return to.done();
}

Written Written::decode(std::string_view payload)
{
    return decodeAll(payload, [](FieldReader& from) {
        Written written;
        written.change.wasUnchanged = from.flag();
        written.change.wasAlone = from.flag();
        written.conclusion = decodeOptionalConclusion(from);
        return written;
    });
}

} // namespace kelvane::tool
