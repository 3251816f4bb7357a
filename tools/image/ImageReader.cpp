#include "image/ImageReader.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

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
        isInMemory ? readInMemory(place, run) : m_image.readFromDisk(place, run);
    }
}

// By a call the system would read ahead what is not there.
void ImageReader::readInMemory(char* buffer, Range range) const
{
    const Range pages = pagesOf(range);
    const Mapping mapped = mapping(pages);
    if (mapped) {
        std::memcpy(buffer, mapped.data() + (range.offset - pages.offset), static_cast<std::size_t>(range.length));
    }
    if (!mapped || mapped.areLost() || m_image.currentSize() < range.end()) {
        m_image.read(buffer, range);
    }
}

bool ImageReader::isInMemory(Range pages) const
{
    const std::vector<Image::Run> runs = m_image.residency(pages);
    return runs.size() == 1 && runs[0].isInMemory;
}

Mapping ImageReader::mapping(Range pages) const
{
    return m_image.mappable() ? Mapping(m_image, pages) : Mapping();
}

// Reads piece by piece, for the place and the cause.
void ImageReader::findFailure(Range range) const
{
    constexpr std::int64_t AT_ONCE = 1 << 16;
    Bytes buffer = m_pool->take(AT_ONCE);
    for (Range rest = range; rest.length > 0;) {
        m_image.read(buffer.data(), takeFirst(rest, AT_ONCE));
    }
}

Mapping::Mapping(const Image& image, Range pages)
{
    [[maybe_unused]] static const bool isInstalled = installHandler();
    const auto length = static_cast<std::size_t>(pages.length);
    void* const start = ::mmap(nullptr, length, PROT_READ, MAP_PRIVATE, image.mappable().get(), pages.offset);
    if (start == MAP_FAILED) {
        return;
    }
    m_start = static_cast<char*>(start);
    m_length = length;
    mapped = {m_start, m_start + length, false};
    ::madvise(start, length, MADV_RANDOM);                                      // nothing is to be read ahead
    if (::madvise(start, length, MADV_POPULATE_READ) != 0 && errno != EINVAL) { // unknown to old systems
        mapped.isLost = true;
    }
}

Mapping::~Mapping()
{
    if (m_start != nullptr) {
        mapped = {};
        ::munmap(m_start, m_length);
    }
}

Mapping& Mapping::operator=(Mapping&& other) noexcept
{
    std::swap(m_start, other.m_start);
    std::swap(m_length, other.m_length);
    return *this;
}

bool Mapping::areLost() const
{
    return mapped.isLost;
}

// Nothing is brought into memory that is not to stay there.
ImageData::ImageData(const ImageReader& reader, Range range)
    : m_reader(reader)
    , m_range(range)
{
    const Range pages = pagesOf(range);
    if (reader.m_cache == Cache::Keep || reader.isInMemory(pages)) {
        m_mapping = reader.mapping(pages);
    }
    if (!m_mapping) {
        m_copy = reader.copy(range);
    }
    m_data = m_mapping ? m_mapping.data() + (range.offset - pages.offset) : m_copy.data;
}

// Within a page, zeros stand in for what was cut off.
void ImageData::check() const
{
    const Image& image = m_reader.image();
    if (m_mapping && (m_mapping.areLost() || image.currentSize() < m_range.end())) {
        m_reader.findFailure(m_range);
        throw Failure(image.path(), m_range.offset, "cannot read: " + errorText(EIO));
    }
}

} // namespace kelvane::tool
