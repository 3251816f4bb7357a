#include "image/FileSystem.h"

#include <sys/vfs.h>

#include <algorithm>
#include <iterator>

namespace kelvane::tool {

namespace {

constexpr long STAMPING[] = {0xef53,      // ext2 to ext4
                             0x58465342,  // XFS
                             0x9123683e,  // Btrfs
                             0xf2f52010,  // F2FS
                             0xca451a4e}; // bcachefs

} // namespace

bool isStampingFileSystem(const Descriptor& file)
{
    struct statfs fileSystem;
    return ::fstatfs(file.get(), &fileSystem) == 0
        && std::find(std::begin(STAMPING), std::end(STAMPING), fileSystem.f_type) != std::end(STAMPING);
}

} // namespace kelvane::tool
