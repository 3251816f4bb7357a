#include "commands/Commands.h"

#include "base/Failure.h"
#include "hash_file/Inspection.h"

namespace kelvane::tool {

Changes::Changes(std::initializer_list<HashedImage*> images)
{
    for (HashedImage* const image : images) {
        if (!image->conclude()) {
            m_paths.push_back(image->image().path());
        }
    }
}

std::string Changes::text() const
{
    std::string text;
    for (const std::string& path : m_paths) {
        text += "changed: " + path + " was changed while this ran; run it again\n";
    }
    return text;
}

Image openImage(const std::string& path, Image::Access access)
{
    Image image(path, access);
    if (!image.isMissing() && isHashFile(path)) {
        throw Failure(path, "this is a hash file, not an image");
    }
    return image;
}

} // namespace kelvane::tool
