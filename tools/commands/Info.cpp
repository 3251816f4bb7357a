#include "commands/Commands.h"
#include "terminal/Text.h"

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

} // namespace

Outcome info(const std::string& path)
{
    const auto [header, unknown, status] = HashFileContents(path);
    const std::int64_t blockSize = header.blockSize;
    const std::int64_t size = header.targetSize();
    const std::int64_t whole = size / blockSize;
    const std::int64_t partial = size % blockSize;
    const std::int64_t unknownBlocks = totalLength(unknown) / blockSize;
    const std::string map = drawMap(unknown, whole, blockSize);
    const std::int64_t onDisk = status.st_blocks * 512;

    Outcome outcome;
    char magic[32];
    std::snprintf(magic, sizeof(magic), "0x%llx", static_cast<unsigned long long>(header.magicNumber));
    const auto line = [&](const char* name, const std::string& value) {
        outcome.text += name + std::string(18 - std::char_traits<char>::length(name), ' ') + value + "\n";
    };
    const auto sized = [](std::int64_t bytes) {
        return counted(bytes, "byte") + (bytes < 1024 ? "" : " (" + humanSize(static_cast<double>(bytes)) + ")");
    };
    line("hash file", path);
    line("magic number", magic);
    line("version", std::to_string(header.version));
    line("hash entries from", sized(static_cast<std::int64_t>(header.dataRegionOffset)));
    line("block size", sized(blockSize));
    line("target ends at", sized(static_cast<std::int64_t>(header.targetEnd)));
    line("partition offset", sized(static_cast<std::int64_t>(header.partitionOffset)));
    line("target size", sized(size));
    line("hash function", std::to_string(header.hashId) + " (BLAKE2sp, 32 bytes)");
    line("whole blocks",
         grouped(whole) + ": " + grouped(whole - unknownBlocks) + " known, " + grouped(unknownBlocks) + " unknown");
    line("partial block", partial == 0 ? "none" : counted(partial, "byte") + ", whose hash is never stored");
    line("file size", sized(status.st_size) + ", on disk " + sized(onDisk));
    line("known regions", "[" + map + "]  # known, + in part, . unknown");
    outcome.json = {{"hashFile", path},
                    {"magicNumber", header.magicNumber},
                    {"version", header.version},
                    {"dataRegionOffset", header.dataRegionOffset},
                    {"blockSize", blockSize},
                    {"targetEnd", header.targetEnd},
                    {"partitionOffset", header.partitionOffset},
                    {"targetSize", size},
                    {"hashId", header.hashId},
                    {"wholeBlocks", whole},
                    {"knownBlocks", whole - unknownBlocks},
                    {"unknownBlocks", unknownBlocks},
                    {"partialBlockBytes", partial},
                    {"fileSize", status.st_size},
                    {"sizeOnDisk", onDisk},
                    {"map", map}};
    return outcome;
}

} // namespace kelvane::tool
