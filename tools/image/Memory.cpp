#include "image/Memory.h"

#include <sys/mman.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "base/Range.h"

#ifndef SYS_cachestat
#define SYS_cachestat 451
#endif

namespace kelvane::tool {

namespace {

// Whether pages are in memory, as systems before 6.5 tell it: mapping by mapping.
bool isMappedRangeResident(const Descriptor& file, Range range)
{
    const auto length = static_cast<std::size_t>(range.length);
    void* const start = ::mmap(nullptr, length, PROT_READ, MAP_SHARED, file.get(), range.offset);
    if (start == MAP_FAILED) {
        return false;
    }
    std::vector<unsigned char> pages((length + 4095) / 4096);
    const bool isTold = ::mincore(start, length, pages.data()) == 0;
    ::munmap(start, length);
    return isTold && std::any_of(pages.begin(), pages.end(), [](unsigned char page) { return (page & 1) != 0; });
}

// False, too, where the system does not tell this user.
bool isResident(const Descriptor& file)
{
    const struct {
        std::uint64_t offset, length;
    } all = {0, 0};
    struct {
        std::uint64_t cached, dirty, written, evicted, recentlyEvicted;
    } pages = {};
    if (::syscall(SYS_cachestat, file.get(), &all, &pages, 0) == 0) {
        return pages.cached > 0;
    }
    if (errno != ENOSYS) {
        return false;
    }
    constexpr std::int64_t AT_ONCE = 1 << 30;
    const std::int64_t end = ::lseek(file.get(), 0, SEEK_END);
    for (Range rest = {0, end}; rest.length > 0; rest = between(rest.offset + AT_ONCE, end)) {
        if (isMappedRangeResident(file, {rest.offset, std::min(rest.length, AT_ONCE)})) {
            return true;
        }
    }
    return false;
}

} // namespace

bool dropFromMemory(const Descriptor& file)
{
    constexpr int TRIES = 10; // what another program reads just now stays for a moment
    for (int i = 0; i < TRIES; ++i) {
        ::posix_fadvise(file.get(), 0, 0, POSIX_FADV_DONTNEED);
        if (!isResident(file)) {
            return true;
        }
        ::usleep(1000);
    }
    return false;
}

} // namespace kelvane::tool
