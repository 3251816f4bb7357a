// Keeps the hashes of a disk image: builds them, asks for ranges, follows writes to the image, and checks
// every answer against a second store that is built from scratch.
//
// Usage: range_hash IMAGE HASHFILE      (writes to the image)

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "BlockHashStore.h"

using namespace kelvane;

namespace {

constexpr uint32_t BLOCK_SIZE = 4096;
constexpr kelvane_off_t PARTITION_OFFSET = 1048576; // the image is a partition that starts at 1 MiB of its disk
constexpr kelvane_ssize_t READ_SIZE = 4194304;

// The image, addressed as the partition that it is.
class Image {
public:
    explicit Image(const std::string& path)
        : m_fd(::open(path.c_str(), O_RDWR | O_CLOEXEC))
    {
        struct stat status;
        if (m_fd < 0 || ::fstat(m_fd, &status) != 0) {
            throw std::runtime_error("cannot open " + path);
        }
        m_size = status.st_size;
    }
    ~Image() { ::close(m_fd); }
    Image(const Image&) = delete;
    Image& operator=(const Image&) = delete;

    kelvane_ssize_t size() const { return m_size; }

    void read(char* buffer, kelvane_ssize_t length, kelvane_off_t offset) const
    {
        if (::pread(m_fd, buffer, static_cast<size_t>(length), offset - PARTITION_OFFSET) != length) {
            throw std::runtime_error("cannot read the image");
        }
    }

    void write(const char* buffer, kelvane_ssize_t length, kelvane_off_t offset)
    {
        if (::pwrite(m_fd, buffer, static_cast<size_t>(length), offset - PARTITION_OFFSET) != length) {
            throw std::runtime_error("cannot write the image");
        }
    }

private:
    int m_fd;
    kelvane_ssize_t m_size;
};

class ProgressBar {
public:
    void advance(kelvane_ssize_t done, kelvane_ssize_t total) const
    {
        constexpr int WIDTH = 50;
        if (m_onTerminal) {
            const int filled = static_cast<int>(WIDTH * done / total);
            std::printf("\r  [%-*.*s] %3d%%", WIDTH, filled, "##################################################",
                        static_cast<int>(100 * done / total));
            std::fflush(stdout);
        }
    }

    void clear() const
    {
        if (m_onTerminal) {
            std::printf("\r\033[K");
        }
    }

private:
    bool m_onTerminal = ::isatty(STDOUT_FILENO) != 0;
};

// Answers the store's requests for data from the image, and counts what it hands over.
class DataSource {
public:
    explicit DataSource(const Image& image)
        : m_image(image)
    {
    }

    BlockHashStore::DataRequiredFunc callback()
    {
        return [this](const std::vector<kelvane_off_t>& offsets, const std::vector<kelvane_off_t>& lengths) {
            kelvane_ssize_t total = 0;
            for (const kelvane_off_t length : lengths) {
                total += length;
            }
            std::vector<std::unique_ptr<char[]>> data;
            kelvane_ssize_t done = 0;
            for (size_t run = 0; run < offsets.size(); ++run) {
                data.push_back(std::make_unique_for_overwrite<char[]>(static_cast<size_t>(lengths[run])));
                for (kelvane_ssize_t at = 0; at < lengths[run]; at += READ_SIZE) {
                    const kelvane_ssize_t length = std::min(READ_SIZE, lengths[run] - at);
                    m_image.read(data.back().get() + at, length, offsets[run] + at);
                    done += length;
                    m_progress.advance(done, total);
                }
            }
            m_progress.clear();
            m_bytes += total;
            return data;
        };
    }

    kelvane_ssize_t takeBytes() { return std::exchange(m_bytes, 0); }

private:
    const Image& m_image;
    ProgressBar m_progress;
    kelvane_ssize_t m_bytes = 0;
};

std::string hexadecimal(const BlockHashStore::HashValue& hash)
{
    std::string text;
    for (const unsigned char byte : hash) {
        char digits[3];
        std::snprintf(digits, sizeof(digits), "%02x", byte);
        text += digits;
    }
    return text;
}

// Asks for the hash of a range and prints one row of the table.
BlockHashStore::HashValue ask(const char* title, BlockHashStore& store, DataSource& source, kelvane_off_t offset,
                              kelvane_ssize_t length)
{
    const auto start = std::chrono::steady_clock::now();
    const auto hash = store.get_hash(offset, length, source.callback());
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
    std::printf("%-32s %12lld %9.2f %9.2f   %.16s\n", title, static_cast<long long>(source.takeBytes()),
                time.count() * 1000, static_cast<double>(length) / time.count() / 1e9, hexadecimal(hash).c_str());
    return hash;
}

// Writes to the image and tells the store; every third write covers its blocks only in part.
void rewriteSomeBlocks(Image& image, BlockHashStore& store, int writes)
{
    std::vector<char> buffer(2 * BLOCK_SIZE);
    for (int i = 0; i < writes; ++i) {
        std::fill(buffer.begin(), buffer.end(), static_cast<char>('a' + i % 26));
        const kelvane_off_t block = (image.size() / BLOCK_SIZE - 2) * i / writes;
        const kelvane_off_t offset = PARTITION_OFFSET + block * BLOCK_SIZE + (i % 3 == 0 ? 1000 : 0);
        const auto length = static_cast<kelvane_ssize_t>(i % 3 == 0 ? BLOCK_SIZE : buffer.size());
        store.invalidate_hashes(offset, length);
        image.write(buffer.data(), length, offset);
        store.update_hashes(offset, buffer.data(), length);
    }
}

std::unique_ptr<BlockHashStore> makeStore(const Image& image, const std::string& path)
{
    const auto end = static_cast<kelvane_size_t>(PARTITION_OFFSET + image.size());
    BlockHashStore::create(path, Blake2dHashFunctionType, end, PARTITION_OFFSET, BLOCK_SIZE, true);
    return BlockHashStore::open(path, end);
}

bool agree(const char* what, const BlockHashStore::HashValue& left, const BlockHashStore::HashValue& right, bool equal)
{
    const bool good = (left == right) == equal;
    std::printf("  %s: %s\n", what, good ? "yes" : "NO");
    return good;
}

bool run(const std::string& imagePath, const std::string& hashPath)
{
    Image image(imagePath);
    DataSource source(image);
    const auto store = makeStore(image, hashPath);
    std::printf("\n%-32s %12s %9s %9s   %s\n", "hash of", "bytes read", "ms", "GB/s", "first 8 bytes of it");
    const auto cold = ask("whole image, nothing known", *store, source, PARTITION_OFFSET, image.size());
    const auto warm = ask("whole image, all known", *store, source, PARTITION_OFFSET, image.size());
    const kelvane_off_t inside = PARTITION_OFFSET + image.size() / 3 + 1234;
    const auto part = ask("10,000,000 bytes inside blocks", *store, source, inside, 10000000);
    rewriteSomeBlocks(image, *store, 60);
    const auto changed = ask("whole image, after 60 writes", *store, source, PARTITION_OFFSET, image.size());
    const auto changedPart = ask("10,000,000 bytes, after them", *store, source, inside, 10000000);

    const auto second = makeStore(image, hashPath + ".second");
    const auto fresh = ask("whole image, a second store", *second, source, PARTITION_OFFSET, image.size());
    const auto freshPart = ask("10,000,000 bytes, the same", *second, source, inside, 10000000);

    std::printf("\nDo they agree?\n");
    bool good = agree("known hashes give the same answer as the data", cold, warm, true);
    good = agree("the writes change the answer for the image", warm, changed, false) && good;
    good = agree("the writes change the answer for the range", part, changedPart, false) && good;
    good = agree("the first store followed the writes to the image", changed, fresh, true) && good;
    good = agree("the first store followed the writes to the range", changedPart, freshPart, true) && good;
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
        return run(argv[1], argv[2]) ? EXIT_SUCCESS : EXIT_FAILURE;
    } catch (const std::exception& exception) {
        std::fprintf(stderr, "range_hash: %s\n", exception.what());
        return 2;
    }
}
