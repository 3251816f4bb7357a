// The store's own calls: hashes of ranges, asked for cold and warm and after writes, and checked against a second
// store that is built from scratch. Usage: range_hash IMAGE HASHFILE      (writes to the image)

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <span>
#include <stdexcept>
#include <string>

#include <kelvane/BlockHashStore.h>
#include <kelvane/TargetWriteGuard.h>

using namespace kelvane;

namespace {

constexpr kelvane_off_t PARTITION = 1048576; // the image is a partition that starts here on its disk
constexpr uint32_t BLOCK = 4096;
constexpr kelvane_off_t SLICE = 16777216; // bytes asked for at once, and so in memory, while hashes are made

std::unique_ptr<BlockHashStore> makeStore(const std::string& path, kelvane_off_t size)
{
    const auto end = static_cast<kelvane_size_t>(PARTITION + size);
    BlockHashStore::create(path, Blake2dHashFunctionType, end, PARTITION, BLOCK, true);
    return BlockHashStore::open(path, end);
}

void showProgress(kelvane_off_t done, kelvane_off_t total)
{
    static const bool onTerminal = ::isatty(STDOUT_FILENO) != 0;
    constexpr int WIDTH = 50;
    if (onTerminal) {
        const std::string bar(static_cast<size_t>(WIDTH * done / total), '#');
        std::printf(done < total ? "\r[%-*s]" : "\r\033[K", WIDTH, bar.c_str());
        std::fflush(stdout);
    }
}

bool run(const char* imagePath, const std::string& hashPath)
{
    const int image = ::open(imagePath, O_RDWR | O_CLOEXEC);
    struct stat status;
    if (image < 0 || ::fstat(image, &status) != 0 || status.st_size < 3 * BLOCK) {
        throw std::runtime_error("cannot open the image, or it is too small");
    }
    const kelvane_off_t size = status.st_size;
    kelvane_off_t asked = 0;
    const auto read = [&](const std::vector<kelvane_off_t>& offsets, const std::vector<kelvane_off_t>& lengths) {
        std::vector<std::unique_ptr<char[]>> data;
        for (size_t i = 0; i < offsets.size(); ++i) {
            const auto length = static_cast<size_t>(lengths[i]);
            data.push_back(std::make_unique_for_overwrite<char[]>(length));
            if (::pread(image, data.back().get(), length, offsets[i] - PARTITION) != lengths[i]) {
                throw std::runtime_error("cannot read the image");
            }
            asked += lengths[i];
        }
        return data;
    };
    const auto ask = [&](const char* title, BlockHashStore& store, kelvane_off_t offset, kelvane_off_t length,
                         bool isNew = false) {
        asked = 0;
        const auto start = std::chrono::steady_clock::now();
        for (kelvane_off_t done = 0; isNew && done < length; done += SLICE) {
            store.get_hash(PARTITION + done, std::min(SLICE, length - done), read);
            showProgress(std::min(done + SLICE, length), length);
        }
        const auto hash = store.get_hash(PARTITION + offset, length, read);
        const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
        std::printf("%-24s %12lld %9.2f %8.2f   %02x%02x%02x%02x...\n", title, static_cast<long long>(asked),
                    time.count() * 1000, static_cast<double>(length) / time.count() / 1e9, hash[0], hash[1], hash[2],
                    hash[3]);
        return hash;
    };
    std::printf("%-24s %12s %9s %8s   %s\n", "hash of", "bytes read", "ms", "GB/s", "hash");

    const auto store = makeStore(hashPath, size);
    const auto cold = ask("image, nothing known", *store, 0, size, true);
    const auto warm = ask("image, all known", *store, 0, size);
    const auto part = ask("a range inside blocks", *store, 1234, 2 * BLOCK);

    const std::string written(BLOCK + 100, 'w'); // one whole block and a part of the next
    TargetWriteGuard guard(*store, PARTITION + BLOCK, static_cast<kelvane_buf_len_t>(written.size()));
    if (::pwrite(image, written.data(), written.size(), BLOCK) < 0 || ::fsync(image) != 0) {
        throw std::runtime_error("cannot write the image");
    }
    guard.commit(std::as_bytes(std::span(written)));

    const auto changed = ask("image, after a write", *store, 0, size);
    const auto changedPart = ask("the range, after it", *store, 1234, 2 * BLOCK);
    const auto second = makeStore(hashPath + ".second", size);
    const auto fresh = ask("image, a second store", *second, 0, size, true);
    const auto freshPart = ask("the range, the same", *second, 1234, 2 * BLOCK);
    const bool good
        = cold == warm && warm != changed && part != changedPart && changed == fresh && changedPart == freshPart;
    std::printf("%s\n", good ? "all answers agree" : "ANSWERS DISAGREE");
    return good;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: range_hash IMAGE HASHFILE\n");
        return 2;
    }
    try {
        return run(argv[1], argv[2]) ? 0 : 1;
    } catch (const std::exception& exception) {
        std::fprintf(stderr, "range_hash: %s\n", exception.what());
        return 2;
    }
}
