#include "commands/Info.h"

#include <sys/stat.h>

#include <algorithm>
#include <vector>

#include "base/Failure.h"
#include "base/Uri.h"
#include "hash_file/HashFile.h"
#include "image/FileImage.h"

namespace kelvane::tool {

namespace {

constexpr std::int64_t MAP_WIDTH = 64;

std::string drawMap(const std::vector<Range>& unknown, std::int64_t blocks, std::int64_t blockSize)
{
    const std::int64_t width = std::min(MAP_WIDTH, blocks);
    const auto start = [&](std::int64_t index) {
        return static_cast<std::int64_t>(static_cast<__int128>(blocks) * index / width) * blockSize;
    };
    std::string map;
    auto next = unknown.begin();
    for (std::int64_t index = 0; index < width; ++index) {
        const Range shown = between(start(index), start(index + 1));
        std::int64_t missing = 0;
        while (next != unknown.end() && next->offset < shown.end()) {
            missing += between(std::max(next->offset, shown.offset), std::min(next->end(), shown.end())).length;
            if (next->end() > shown.end()) {
                break;
            }
            ++next;
        }
        map += missing == 0 ? '#' : missing == shown.length ? '.' : '+';
    }
    return map;
}

Doubt doubtNow(const Record& record, const Descriptor& hashFile)
{
    if (isExport(record.image.identity.path)) { // whose server need not be there
        ImageState now = record.image;
        now.identity.instance = bootTraits();
        now.identity.doubt = EXPORT_DOUBT;
        return doubtAbout(record, hashFileState(hashFile), now, {}, {record.point, ""});
    }
    try {
        const FileImage image(record.image.identity.path, Image::Access::Read);
        return doubtAbout(record, hashFileState(hashFile), image.state(), image.writers());
    } catch (const Failure& failure) {
        return {Doubt::Because::Untold, failure.what()};
    }
}

std::optional<InfoResult::Recorded> recordedOf(const std::string& path, const Descriptor& hashFile)
{
    const std::optional<Record> record = readRecord(path);
    return record ? std::optional(InfoResult::Recorded {*record, doubtNow(*record, hashFile)}) : std::nullopt;
}

} // namespace

InfoResult info(const std::string& path)
{
    const Descriptor file = openHashFile(path);
    HashFileInspector inspector = explaining(path, [&] { return HashFileInspector(file.place()); });
    InfoResult result;
    result.hashFile = path;
    result.magicNumber = inspector.magic_number();
    result.version = inspector.version();
    result.entriesStart = static_cast<std::int64_t>(inspector.data_region_offset_in_bytes());
    result.geometry = geometryOf(inspector, path);
    result.hashFunction = inspector.hash_function_type();
    result.hashSize = static_cast<std::int64_t>(inspector.hash_size_in_bytes());
    const std::int64_t blockSize = result.geometry.blockSize;
    const std::vector<Range> unknown = explaining(path, [&] {
        return unknownRanges(inspector, result.geometry, {0, result.wholeBlocks() * blockSize});
    });
    result.unknownBlocks = totalLength(unknown) / blockSize;
    result.map = drawMap(unknown, result.wholeBlocks(), blockSize);
    result.fileSize = static_cast<std::int64_t>(inspector.file_size_in_bytes());
    struct stat status = {};
    ::fstat(file.get(), &status);
    result.sizeOnDisk = status.st_blocks * 512;
    result.recorded = recordedOf(path, file);
    return result;
}

} // namespace kelvane::tool
