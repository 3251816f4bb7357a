#include "image/MappedData.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <new>
#include <vector>

#include "base/Failure.h"

namespace kelvane::tool {

namespace {

const std::int64_t PAGE = ::sysconf(_SC_PAGESIZE);

// What the thread has mapped.
struct Window {
    char* start = nullptr;
    char* end = nullptr;
    bool isLost = false;
};

constinit thread_local Window window;

void* mapMemory(void* address, std::size_t length, int protection, int flags)
{
    return ::mmap(address, length, protection, MAP_PRIVATE | MAP_ANONYMOUS | flags, -1, 0);
}

// The system could not bring a page in. Everything from there on becomes zeros, and the work goes on until it is asked
// whether all was there. Any other access that fails so ends the program when it is repeated.
extern "C" void replaceLostPages(int signal, siginfo_t* info, void* /*context*/)
{
    const int error = errno;
    auto* const address = static_cast<char*>(info->si_addr);
    if (window.start <= address && address < window.end) {
        char* const page = window.start + roundDown(address - window.start, PAGE);
        const auto length = static_cast<std::size_t>(window.end - page);
        window.isLost = mapMemory(page, length, PROT_READ, MAP_FIXED) == page;
    }
    if (!window.isLost) {
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

} // namespace

MappedData::MappedData(const Image& image, Range range)
    : m_image(image)
    , m_range(range)
    , m_mapped(between(roundDown(range.offset, PAGE), roundUp(range.end(), PAGE)))
{
    [[maybe_unused]] static const bool isInstalled = installHandler();
    const auto length = static_cast<std::size_t>(m_mapped.length);
    void* start = image.isStamped() && !image.isBlockDevice()
        ? ::mmap(nullptr, length, PROT_READ, MAP_PRIVATE, image.file().get(), m_mapped.offset)
        : MAP_FAILED;
    const bool isMapped = start != MAP_FAILED; // some file systems cannot
    start = isMapped ? start : mapMemory(nullptr, length, PROT_READ | PROT_WRITE, 0);
    if (start == MAP_FAILED) {
        throw std::bad_alloc();
    }
    m_start = static_cast<char*>(start);
    window = {m_start, m_start + m_mapped.length, false};
    try {
        if (!isMapped) {
            image.read(m_start, between(m_mapped.offset, std::min(m_mapped.end(), image.size())));
        } else if (::madvise(m_start, length, MADV_POPULATE_READ) != 0 && errno != EINVAL) { // unknown to old systems
            readPieces();
        }
    } catch (...) {
        ::munmap(m_start, length);
        throw;
    }
}

MappedData::~MappedData()
{
    window = {};
    ::munmap(m_start, static_cast<std::size_t>(m_mapped.length));
}

bool MappedData::isWhole() const
{
    struct stat status;
    const bool isCut = !m_image.isBlockDevice() && ::fstat(m_image.file().get(), &status) == 0
        && status.st_size < m_range.end(); // within a page, zeros stand in for what was cut off
    return !window.isLost && !isCut;
}

void MappedData::fail() const
{
    readPieces();
    throw Failure(m_image.path(), m_range.offset, "cannot read: " + errorText(EIO));
}

// Finds the place and the cause of a failure.
void MappedData::readPieces() const
{
    std::vector<char> buffer(1 << 16);
    for (Range rest = m_range; rest.length > 0;) {
        const Range piece = {rest.offset, std::min(std::ssize(buffer), rest.length)};
        m_image.read(buffer.data(), piece);
        rest = between(piece.end(), rest.end());
    }
}

} // namespace kelvane::tool
