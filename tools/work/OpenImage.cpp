#include "work/OpenImage.h"

#include "base/Uri.h"
#include "hash_file/HashFile.h"
#include "image/FileImage.h"
#include "nbd/Export.h"

namespace kelvane::tool {

std::unique_ptr<Image> openImage(const std::string& path, Image::Access access, const Common& common, AtLink atLink,
                                 const std::string& bitmap)
{
    if (isExport(path)) {
        return openExport(path, access, common.threads(), common.timeout, bitmap);
    }
    constexpr Range BEGINNING = {0, 1 << 14}; // which looking at the first page brings into memory
    auto image = std::make_unique<FileImage>(path, access, atLink);
    const bool wasInMemory = image->isMissing() || image->isAnyInMemory(BEGINNING);
    if (!image->isMissing() && isHashFile(image->file().place())) {
        throw Failure(path, "this is a hash file, not an image");
    }
    if (!image->isMissing() && isRecord(image->file())) {
        throw Failure(path, "this is the record beside a hash file, not an image");
    }
    if (!wasInMemory) {
        image->drop(BEGINNING);
    }
    return image;
}

} // namespace kelvane::tool
