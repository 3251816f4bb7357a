#include "commands/Commands.h"

#include "base/Failure.h"
#include "terminal/Text.h"

namespace kelvane::tool {

Changes::Changes(HashedImage& image)
{
    add(image.image().path(), image.conclude());
}

Changes::Changes(Side& first, Side& second)
{
    for (Side* const side : {&first, &second}) {
        add(side->name(), side->conclude());
    }
}

void Changes::add(const std::string& name, bool isUnchanged)
{
    if (!isUnchanged) {
        m_names.push_back(name);
    }
}

std::string Changes::text() const
{
    std::string text;
    for (const std::string& path : m_names) {
        text += "changed: " + path + " was changed while this ran; run it again\n";
    }
    return text;
}

std::uint32_t commonBlockSize(const Side& first, const Side& second, const HashFileOptions& options)
{
    const auto own = first.opening().blockSize;
    const auto other = second.opening().blockSize;
    if (own && other && *own != *other) {
        throw Failure(first.opening().hashFile,
                      "its blocks have " + counted(*own, "byte") + ", those of " + second.opening().hashFile + " "
                          + counted(*other, "byte") + "; name another hash file for one of the images");
    }
    return options.blockSize.value_or(own.value_or(other.value_or(HashFile::DEFAULT_BLOCK_SIZE)));
}

} // namespace kelvane::tool
