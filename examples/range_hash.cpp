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
#include <utility>
#include <vector>

#include <kelvane/BlockHashStore.h>
#include <kelvane/TargetSource.h>
#include <kelvane/TargetWriteGuard.h>

using namespace kelvane;

namespace {

constexpr kelvane_off_t PARTITION = 1048576; // the image is a partition that starts here on its disk
constexpr uint32_t BLOCK = 4096;

// The image's bytes, read a piece at a time, and how many were asked for.
class Image : public TargetSource {
public:
    explicit Image(const char* path)
        : m_fd(::open(path, O_RDWR | O_CLOEXEC))
        , m_buffer(1 << 20)
    {
        struct stat status;
        if (m_fd < 0 || ::fstat(m_fd, &status) != 0 || status.st_size < 3 * BLOCK) {
            throw std::runtime_error("cannot open the image, or it is too small");
        }
        m_size = status.st_size;
    }

    LentData lend(kelvane_off_t offset, kelvane_buf_len_t length) override
    {
        length = std::min(length, static_cast<kelvane_buf_len_t>(m_buffer.size()));
        if (::pread(m_fd, m_buffer.data(), static_cast<size_t>(length), offset - PARTITION) != length) {
            throw std::runtime_error("cannot read the image");
        }
        m_asked += length;
        return {m_buffer.data(), length};
    }

    void write(const std::string& bytes, kelvane_off_t offset) const
    {
        if (::pwrite(m_fd, bytes.data(), bytes.size(), offset) < 0 || ::fsync(m_fd) != 0) {
            throw std::runtime_error("cannot write the image");
        }
    }

    kelvane_off_t size() const { return m_size; }
    kelvane_off_t takeAsked() { return std::exchange(m_asked, 0); }

private:
    int m_fd;
    kelvane_off_t m_size;
    std::vector<char> m_buffer;
    kelvane_off_t m_asked = 0;
};

std::unique_ptr<BlockHashStore> makeStore(const std::string& path, kelvane_off_t size)
{
    const auto end = static_cast<kelvane_size_t>(PARTITION + size);
    BlockHashStore::create(path, Blake2dHashFunctionType, end, PARTITION, BLOCK, true);
    return BlockHashStore::open(path, end);
}

bool showProgress(kelvane_off_t done, kelvane_off_t total)
{
    static const bool onTerminal = ::isatty(STDOUT_FILENO) != 0;
    constexpr int WIDTH = 50;
    if (onTerminal) {
        const std::string bar(static_cast<size_t>(WIDTH * done / total), '#');
        std::printf(done < total ? "\r[%-*s]" : "\r\033[K", WIDTH, bar.c_str());
        std::fflush(stdout);
    }
    return true;
}

bool run(const char* imagePath, const std::string& hashPath)
{
    Image image(imagePath);
    const kelvane_off_t size = image.size();
    const auto ask = [&](const char* title, BlockHashStore& store, kelvane_off_t offset, kelvane_off_t length) {
        const auto start = std::chrono::steady_clock::now();
        const auto hash = store.hash_range(PARTITION + offset, length, image,
                                           [=](kelvane_buf_len_t done) { return showProgress(done, length); });
        const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
        std::printf("%-24s %12lld %9.2f %8.2f   %02x%02x%02x%02x...\n", title,
                    static_cast<long long>(image.takeAsked()), time.count() * 1000,
                    static_cast<double>(length) / time.count() / 1e9, hash[0], hash[1], hash[2], hash[3]);
        return hash;
    };
    std::printf("%-24s %12s %9s %8s   %s\n", "hash of", "bytes read", "ms", "GB/s", "hash");

    const auto store = makeStore(hashPath, size);
    const auto cold = ask("image, nothing known", *store, 0, size);
    const auto warm = ask("image, all known", *store, 0, size);
    const auto part = ask("a range inside blocks", *store, 1234, 2 * BLOCK);

    const std::string written(BLOCK + 100, 'w'); // one whole block and a part of the next
    TargetWriteGuard guard(*store, PARTITION + BLOCK, static_cast<kelvane_buf_len_t>(written.size()));
    image.write(written, BLOCK);
    guard.commit(std::as_bytes(std::span(written)));

    const auto changed = ask("image, after a write", *store, 0, size);
    const auto changedPart = ask("the range, after it", *store, 1234, 2 * BLOCK);
    const auto second = makeStore(hashPath + ".second", size);
    const auto fresh = ask("image, a second store", *second, 0, size);
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
