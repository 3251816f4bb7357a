#include <iostream>
#include <iterator>

#include "base/Failure.h"
#include "commands/Commands.h"
#include "terminal/Text.h"
#include "work/HashedImage.h"

namespace kelvane::tool {

namespace {

std::string contentOf(const std::string& path)
{
    if (path == "-") {
        return {std::istreambuf_iterator<char>(std::cin), {}};
    }
    const Descriptor file = openFile(path, O_RDONLY);
    std::string text;
    char buffer[1 << 16];
    ssize_t count = file ? ::read(file.get(), buffer, sizeof(buffer)) : -1;
    for (; count > 0; count = ::read(file.get(), buffer, sizeof(buffer))) {
        text.append(buffer, static_cast<std::size_t>(count));
    }
    if (count < 0) {
        throw Failure(path, "cannot read: " + errorText(errno));
    }
    return text;
}

// In the image, all of them inside it.
std::vector<Range> rangesIn(const HashedImage& hashed, RangeList list, const std::string& source, std::int64_t start)
{
    const std::int64_t origin = list.isOnDevice ? start : 0;
    std::int64_t number = 0;
    for (Range& range : list.ranges) {
        ++number;
        const std::int64_t offset = range.offset - origin;
        if (offset < 0 || offset + range.length > hashed.image().size()) {
            throw Failure(source,
                          "range " + std::to_string(number) + ", " + std::to_string(range.offset) + " + "
                              + std::to_string(range.length) + ", is not in " + hashed.image().path()
                              + ", which reaches from " + std::to_string(origin) + " to "
                              + std::to_string(origin + hashed.image().size()));
        }
        range.offset = offset;
    }
    return std::move(list.ranges);
}

} // namespace

Outcome invalidate(const ImageArguments& arguments, const InvalidateArguments& what, const Common& common)
{
    const Image image = openImage(arguments.image, Image::Access::Read);
    HashedImage hashed(image, HashFile::openExisting(image, arguments.hashFile), common);
    const std::string source = what.list == "-" ? "standard input" : what.list;
    const std::string list = contentOf(what.list);
    if (!what.format && list.find_first_not_of(" \t\r\n") == std::string::npos) { // as of a command that has failed
        throw Failure(source, "is empty; name its --format if that means that nothing has changed");
    }
    const std::vector<Range> ranges = rangesIn(hashed, parseRangeList(list, source, what.format, what.entries), source,
                                               hashed.hashFile().onDevice(0));
    const bool isBelieved = hashed.believes() || hashed.wasOnlyChanged();
    hashed.adaptToImage();
    hashed.markChanging();
    for (const Range& range : ranges) {
        hashed.store().invalidate(range);
    }
    hashed.flushHashes();
    hashed.believe(isBelieved); // all that changed was told
    const Changes changes(hashed);

    Outcome outcome;
    outcome.good = changes.none();
    outcome.text = hashed.hashFile().path() + ": " + counted(totalLength(ranges), "byte") + " in "
        + counted(std::ssize(ranges), "range") + " forgotten\n" + changes.text();
    if (!isBelieved) {
        outcome.text += "the next run checks all the same: " + hashed.doubt() + "\n";
    }
    outcome.json = {{"hashFile", hashed.hashFile().path()},
                    {"bytes", totalLength(ranges)},
                    {"ranges", ranges.size()},
                    {"recorded", isBelieved && changes.none()},
                    {"freshness", hashed.json()},
                    {"changedMeanwhile", changes.json()}};
    return outcome;
}

} // namespace kelvane::tool
