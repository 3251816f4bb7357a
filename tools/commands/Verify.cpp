#include <array>
#include <kelvane/HashFunctionFactory.h>
#include <mutex>

#include "base/Failure.h"
#include "commands/Commands.h"
#include "terminal/Text.h"
#include "work/Blocks.h"

namespace kelvane::tool {

namespace {

constexpr std::int64_t SAMPLE = 64 << 10;

// Compares stored hashes with those of the data, by halving what differs.
class Check {
public:
    Check(Store& store, const Image& image, Range piece, char* data, std::vector<Range>& bad)
        : m_store(store)
        , m_image(image)
        , m_piece(piece)
        , m_bad(bad)
    {
        const auto blockSize = static_cast<std::size_t>(store.blockSize());
        const std::size_t count = static_cast<std::size_t>(piece.length) / blockSize;
        const auto function = HashFunctionFactory::createHashFunction(Blake2dHashFunctionType);
        m_digests.resize(count * DIGEST);
        std::vector<kelvane_buf_t> blocks;
        std::vector<unsigned char*> digests;
        for (std::size_t i = 0; i < count; ++i) {
            blocks.push_back(data + i * blockSize);
            digests.push_back(m_digests.data() + i * DIGEST);
        }
        function->get_hashes(blocks.data(), count, store.blockSize(), digests.data());
    }

    void compare(Range range)
    {
        const std::int64_t blockSize = m_store.blockSize();
        const std::int64_t blocks = range.length / blockSize;
        const auto first = static_cast<std::size_t>((range.offset - m_piece.offset) / blockSize);
        std::atomic<std::int64_t> bytesRead = 0; // all its hashes are known
        const auto expected
            = m_store.hash(m_digests.data() + first * DIGEST, static_cast<std::size_t>(blocks) * DIGEST);
        if (m_store.hash(range, m_image, bytesRead) == expected) {
            return;
        }
        if (blocks == 1) {
            append(m_bad, range);
            return;
        }
        const std::int64_t middle = range.offset + blocks / 2 * blockSize;
        compare(between(range.offset, middle));
        compare(between(middle, range.end()));
    }

private:
    static constexpr std::size_t DIGEST = 32;

    Store& m_store;
    const Image& m_image;
    Range m_piece;
    std::vector<Range>& m_bad;
    std::vector<unsigned char> m_digests;
};

std::vector<Range> sorted(std::vector<Range> ranges)
{
    std::sort(ranges.begin(), ranges.end(), [](const Range& a, const Range& b) { return a.offset < b.offset; });
    std::vector<Range> merged;
    for (const Range& range : ranges) {
        append(merged, range);
    }
    return merged;
}

} // namespace

Outcome verify(const ImageArguments& arguments, const VerifyArguments& how, const Common& common)
{
    const Image image(arguments.image, Image::Access::Read);
    HashFile hashFile = HashFile::openExisting(image, arguments.hashFile);
    const std::int64_t blockSize = hashFile.store().blockSize();
    const std::int64_t recorded = hashFile.header().targetSize();
    const Range range = wholeBlocks({0, std::min(image.size(), recorded)}, blockSize);
    const bool all = how.share >= 1;
    const std::uint64_t seed = how.seed.value_or(std::random_device()());
    const std::int64_t unit = all ? sliceSize(blockSize) : std::max(blockSize, roundDown(SAMPLE, blockSize));
    RangeSource source(range, unit, how.share, seed);
    Progress progress("verify", static_cast<std::int64_t>(how.share * static_cast<double>(range.length)),
                      common.progress);
    std::mutex mutex;
    std::vector<Range> bad;
    const auto check = [&](Store& store, Range piece, char* data) {
        std::vector<Range> found;
        Check(store, image, piece, data, found).compare(piece);
        const std::scoped_lock lock(mutex);
        bad.insert(bad.end(), found.begin(), found.end());
    };
    const Traffic traffic = forBlocks(hashFile, image, source, Which::Known, common.jobs, progress, check);
    bad = sorted(std::move(bad));
    if (how.mark && !bad.empty()) {
        for (const Range& wrong : bad) {
            hashFile.store().invalidate(wrong);
        }
        hashFile.store().sync();
    }
    if (all && recorded == image.size() && (bad.empty() || how.mark)) {
        hashFile.setTimeToNow(); // it agrees with the image as it is now
    }

    const std::int64_t checked = (traffic.read + traffic.holes) / blockSize;
    Outcome outcome;
    outcome.good = bad.empty() && recorded == image.size();
    outcome.json = {{"image", image.path()},
                    {"good", outcome.good},
                    {"blocksChecked", checked},
                    {"badBlocks", totalLength(bad) / blockSize},
                    {"marked", how.mark && !bad.empty()},
                    {"recordedSize", recorded},
                    {"imageSize", image.size()},
                    {"bad", nlohmann::ordered_json::array()}};
    if (!all) {
        outcome.json["seed"] = seed;
    }
    for (const Range& wrong : bad) {
        outcome.text += "wrong: " + std::to_string(hashFile.onDevice(wrong.offset)) + " + "
            + std::to_string(wrong.length) + "\n";
        outcome.json["bad"].push_back({{"offset", hashFile.onDevice(wrong.offset)}, {"length", wrong.length}});
    }
    if (recorded != image.size()) {
        outcome.text
            += "size: " + grouped(image.size()) + " bytes, " + grouped(recorded) + " recorded; build adapts it\n";
    }
    outcome.text += image.path() + ": " + counted(checked, "known block") + " checked, "
        + grouped(totalLength(bad) / blockSize) + " wrong" + (how.mark && !bad.empty() ? ", now unknown" : "") + "\n";
    return outcome;
}

} // namespace kelvane::tool
