#include "image/ImageReader.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <new>

#include "base/Failure.h"

namespace kelvane::tool {

namespace {

const std::int64_t PAGE = ::sysconf(_SC_PAGESIZE);
constexpr std::int64_t LARGEST_KEPT = (8 << 20) + (1 << 16); // bytes of memory that is used again

// What the thread has mapped.
struct Mapped {
    char* start = nullptr;
    char* end = nullptr;
    bool isLost = false;
};

constinit thread_local Mapped mapped;

// The system could not bring a page in. Everything from there on becomes zeros, and the work goes on until it is asked
// whether all was there. Any other access that fails so ends the program when it is repeated.
extern "C" void replaceLostPages(int signal, siginfo_t* info, void* /*context*/)
{
    const int error = errno; // of what the signal came into
    auto* const address = static_cast<char*>(info->si_addr);
    if (mapped.start <= address && address < mapped.end) {
        char* const page = mapped.start + roundDown(address - mapped.start, PAGE);
        const auto length = static_cast<std::size_t>(mapped.end - page);
        mapped.isLost = ::mmap(page, length, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0) == page;
    }
    if (!mapped.isLost) {
        std::signal(signal, SIG_DFL);
    }
    errno = error;
}

bool installHandler()
{
    struct sigaction action = {};
    action.sa_sigaction = replaceLostPages;
    action.sa_flags = SA_SIGINFO;
    return sigaction(SIGBUS, &action, nullptr) == 0;
}

Range pagesOf(Range range)
{
    return between(roundDown(range.offset, PAGE), roundUp(range.end(), PAGE));
}

} // namespace

ImageReader::ImageReader(const Image& image, Cache cache)
    : m_image(image)
    , m_cache(cache)
    , m_pool(std::make_shared<BytesPool>(LARGEST_KEPT))
{
}

// What goes past the system's memory is of whole pages.
ImageReader::Copy ImageReader::copy(Range range) const
{
    const Range pages = pagesOf(range);
    const Range window = between(pages.offset, std::min(pages.end(), std::max(range.end(), m_image.size())));
    Copy copy = {m_pool->take(static_cast<std::size_t>(window.length)), nullptr};
    read(copy.memory.data(), window);
    copy.data = copy.memory.data() + (range.offset - window.offset);
    return copy;
}

void ImageReader::read(char* buffer, Range range) const
{
    if (m_cache == Cache::Keep) {
        m_image.read(buffer, range);
        return;
    }
    for (const auto& [run, isInMemory] : m_image.residency(range)) {
        char* const place = buffer + (run.offset - range.offset);
        isInMemory ? m_image.read(place, run) : m_image.readFromDisk(place, run);
    }
}

ImageData::ImageData(const ImageReader& reader, Range range)
    : m_reader(reader)
    , m_range(range)
    , m_window(pagesOf(range))
{
    if (!map()) {
        m_copy = reader.copy(range);
    }
}

ImageData::~ImageData()
{
    if (m_isMapped) {
        mapped = {};
        ::munmap(m_start, static_cast<std::size_t>(m_window.length));
    }
}

// Only where what is mapped is what is read, and where that brings nothing into memory which is not to stay there.
bool ImageData::map()
{
    const Image& image = m_reader.image();
    const bool isFitting = image.isStamped() && !image.isBlockDevice();
    if (!isFitting || (m_reader.m_cache == Cache::LeaveAsFound && !image.isInMemory(m_window))) {
        return false;
    }
    [[maybe_unused]] static const bool isInstalled = installHandler();
    const auto length = static_cast<std::size_t>(m_window.length);
    void* const start = ::mmap(nullptr, length, PROT_READ, MAP_PRIVATE, image.file().get(), m_window.offset);
    if (start == MAP_FAILED) {
        return false;
    }
    m_isMapped = true;
    m_start = static_cast<char*>(start);
    mapped = {m_start, m_start + m_window.length, false};
    populate();
    return true;
}

void ImageData::populate()
{
    try {
        const auto length = static_cast<std::size_t>(m_window.length);
        if (::madvise(m_start, length, MADV_POPULATE_READ) != 0 && errno != EINVAL) { // unknown to old systems
            readPieces();
        }
    } catch (...) {
        mapped = {};
        ::munmap(m_start, static_cast<std::size_t>(m_window.length));
        throw;
    }
}

// Within a page, zeros stand in for what was cut off.
void ImageData::check() const
{
    const Image& image = m_reader.image();
    const bool isCut = m_isMapped && image.currentSize() < m_range.end();
    if ((m_isMapped && mapped.isLost) || isCut) {
        readPieces();
        throw Failure(image.path(), m_range.offset, "cannot read: " + errorText(EIO));
    }
}

// Finds the place and the cause of a failure.
void ImageData::readPieces() const
{
    constexpr std::int64_t AT_ONCE = 1 << 16;
    Bytes buffer = m_reader.m_pool->take(AT_ONCE);
    for (Range rest = m_range; rest.length > 0;) {
        const Range piece = {rest.offset, std::min(AT_ONCE, rest.length)};
        m_reader.image().read(buffer.data(), piece);
        rest = between(piece.end(), rest.end());
    }
}

} // namespace kelvane::tool
