#include "image/Memory.h"

#include <sys/mman.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "base/Range.h"
#include "image/FileSystem.h"

#ifndef SYS_cachestat
#define SYS_cachestat 451
#endif

namespace kelvane::tool {

namespace {

constexpr std::int64_t PAGE = 4096;

// False, too, where the system does not tell this user.
bool isResident(const Descriptor& file)
{
    constexpr std::int64_t AT_ONCE = 1 << 30;
    const std::int64_t end = ::lseek(file.get(), 0, SEEK_END);
    if (const auto pages = pagesInMemory(file, {0, end})) {
        return *pages > 0;
    }
    for (Range rest = {0, end}; rest.length > 0; rest = between(rest.offset + AT_ONCE, end)) {
        const std::vector<bool> pages = residentPages(file, {rest.offset, std::min(rest.length, AT_ONCE)});
        if (std::find(pages.begin(), pages.end(), true) != pages.end()) {
            return true;
        }
    }
    return false;
}

} // namespace

// Not before Linux 6.5.
std::optional<std::int64_t> pagesInMemory(const Descriptor& file, Range range)
{
    const struct {
        std::int64_t offset, length;
    } bytes = {range.offset, range.length};
    struct {
        std::uint64_t cached, dirty, written, evicted, recentlyEvicted;
    } pages = {};
    const bool isTold = ::syscall(SYS_cachestat, file.get(), &bytes, &pages, 0) == 0;
    return isTold ? std::optional(static_cast<std::int64_t>(pages.cached)) : std::nullopt;
}

std::vector<bool> residentPages(const Descriptor& file, Range range)
{
    std::vector<unsigned char> pages(static_cast<std::size_t>(roundUp(range.length, PAGE) / PAGE));
    const auto length = static_cast<std::size_t>(range.length);
    void* const start = ::mmap(nullptr, length, PROT_READ, MAP_SHARED, file.get(), range.offset);
    if (start == MAP_FAILED) {
        return std::vector<bool>(pages.size());
    }
    ::mincore(start, length, pages.data());
    ::munmap(start, length);
    std::vector<bool> areResident(pages.size());
    std::transform(pages.begin(), pages.end(), areResident.begin(), [](unsigned char page) { return page % 2 == 1; });
    return areResident;
}

// Some file systems have no disk, or one that is not seen from here.
bool dropFromMemory(const Descriptor& file)
{
    struct stat status;
    const bool isDevice = ::fstat(file.get(), &status) == 0 && S_ISBLK(status.st_mode);
    constexpr int TRIES = 10; // what another program reads just now stays for a moment
    for (int i = 0; i < TRIES; ++i) {
        ::posix_fadvise(file.get(), 0, 0, POSIX_FADV_DONTNEED);
        if (!isResident(file) || !(isDevice || isStampingFileSystem(file))) {
            return true;
        }
        ::usleep(1000);
    }
    return false;
}

} // namespace kelvane::tool
