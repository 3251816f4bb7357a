#include <sys/stat.h>

#include "base/Failure.h"
#include "base/Text.h"
#include "commands/Commands.h"
#include "hash_file/Inspection.h"
#include "hash_file/Record.h"

namespace kelvane::tool {

namespace {

constexpr std::int64_t MAP_WIDTH = 64;

// One character for each equal part of the blocks: all known, some, none.
std::string drawMap(const std::vector<Range>& unknown, std::int64_t blocks, std::int64_t blockSize)
{
    const std::int64_t width = std::min(MAP_WIDTH, blocks);
    std::string map;
    auto run = unknown.begin();
    for (std::int64_t cell = 0; cell < width; ++cell) {
        const auto share = [&](std::int64_t index) {
            return static_cast<std::int64_t>(static_cast<__int128>(blocks) * index / width) * blockSize;
        };
        const Range part = between(share(cell), share(cell + 1));
        std::int64_t missing = 0;
        while (run != unknown.end() && run->offset < part.end()) {
            missing += between(std::max(run->offset, part.offset), std::min(run->end(), part.end())).length;
            if (run->end() > part.end()) {
                break;
            }
            ++run;
        }
        map += missing == 0 ? '#' : missing == part.length ? '.' : '+';
    }
    return map;
}

// What the record beside the hash file says, and whether that still holds.
struct Standing {
    std::string text;
    nlohmann::ordered_json json;
};

Doubt doubtNow(const Record& record, const Descriptor& hashFile)
{
    try {
        const Image image(record.image.identity.path, Image::Access::Read);
        const ImageState state = stateOf(image);
        return doubtAbout(record, hashFileState(hashFile, false), state, writersOf(image));
    } catch (const Failure& failure) {
        return {Doubt::Because::NoEvidence, failure.what()};
    }
}

Standing standingOf(const std::string& path, const Descriptor& hashFile)
{
    const std::optional<Record> record = readRecord(path);
    if (!record) {
        return {"none", nullptr};
    }
    const bool isClean = record->standing == Record::Standing::True;
    const std::string& image = record->image.identity.path;
    const Doubt doubt = doubtNow(*record, hashFile);
    std::string text
        = doubt.isAny() ? "not believed of " + image + ": " + doubt.text : "true of " + image + ", which is unchanged";
    if (record->standing == Record::Standing::Open) {
        text = "not clean: a run on " + image + " is under way, or was cut short";
    }
    return {text,
            {{"clean", isClean},
             {"image", image},
             {"size", record->image.marks.size},
             {"marks", record->image.marks.traits},
             {"verdict", doubt.isAny() ? doubt.text : "unchanged"}}};
}

} // namespace

Outcome info(const std::string& path)
{
    const Descriptor file = openHashFile(path);
    HashFileInspector inspector = explaining(path, [&] { return HashFileInspector(file.place()); });
    const Geometry geometry = geometryOf(inspector, path);
    const std::int64_t blockSize = geometry.blockSize;
    const std::int64_t size = geometry.targetSize;
    const std::int64_t whole = size / blockSize;
    const std::int64_t partial = size % blockSize;
    const std::vector<Range> unknown = explaining(path, [&] {
        return unknownRanges(inspector, geometry, {0, whole * blockSize});
    });
    const std::int64_t unknownBlocks = totalLength(unknown) / blockSize;
    const auto fileSize = static_cast<std::int64_t>(inspector.file_size_in_bytes());
    const std::string map = drawMap(unknown, whole, blockSize);
    struct stat status = {};
    ::fstat(file.get(), &status);
    const std::int64_t onDisk = status.st_blocks * 512;
    const Standing record = standingOf(path, file);

    Outcome outcome;
    char magic[32];
    std::snprintf(magic, sizeof(magic), "0x%llx", static_cast<unsigned long long>(inspector.magic_number()));
    const auto line = [&](const char* name, const std::string& value) {
        outcome.text += name + std::string(18 - std::char_traits<char>::length(name), ' ') + value + "\n";
    };
    const auto sized = [](std::int64_t bytes) {
        return counted(bytes, "byte") + (bytes < 1024 ? "" : " (" + humanSize(static_cast<double>(bytes)) + ")");
    };
    line("hash file", path);
    line("magic number", magic);
    line("version", std::to_string(inspector.version()));
    line("hash entries from", sized(static_cast<std::int64_t>(inspector.data_region_offset_in_bytes())));
    line("block size", sized(blockSize));
    line("target ends at", sized(static_cast<std::int64_t>(inspector.target_size_in_bytes())));
    line("partition offset", sized(geometry.partitionOffset));
    line("target size", sized(size));
    line("hash function",
         std::to_string(inspector.hash_function_type()) + " (BLAKE2sp, "
             + std::to_string(inspector.hash_size_in_bytes()) + " bytes)");
    line("whole blocks",
         grouped(whole) + ": " + grouped(whole - unknownBlocks) + " known, " + grouped(unknownBlocks) + " unknown");
    line("partial block", partial == 0 ? "none" : counted(partial, "byte") + ", whose hash is never stored");
    line("file size", sized(fileSize) + ", on disk " + sized(onDisk));
    line("known regions", "[" + map + "]  # known, + in part, . unknown");
    line("record", record.text);
    outcome.json = {{"verdict", "done"},
                    {"hashFile", path},
                    {"magicNumber", inspector.magic_number()},
                    {"version", inspector.version()},
                    {"dataRegionOffset", inspector.data_region_offset_in_bytes()},
                    {"blockSize", blockSize},
                    {"targetEnd", inspector.target_size_in_bytes()},
                    {"partitionOffset", geometry.partitionOffset},
                    {"targetSize", size},
                    {"hashId", static_cast<int>(inspector.hash_function_type())},
                    {"wholeBlocks", whole},
                    {"knownBlocks", whole - unknownBlocks},
                    {"unknownBlocks", unknownBlocks},
                    {"partialBlockBytes", partial},
                    {"fileSize", fileSize},
                    {"sizeOnDisk", onDisk},
                    {"map", map},
                    {"record", record.json}};
    return outcome;
}

} // namespace kelvane::tool
