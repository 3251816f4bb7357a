#include "commands/Invalidate.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "base/Failure.h"
#include "base/Interrupt.h"
#include "base/Text.h"
#include "lists/ListParser.h"
#include "work/HashedImage.h"
#include "work/OpenImage.h"

namespace kelvane::tool {

namespace {

constexpr std::size_t LARGEST_LIST = 256 << 20; // bytes

// A signal ends it while nothing comes, as from a pipe.
std::string listIn(const std::string& path, const std::string& source)
{
    const Descriptor file = path == "-" ? Descriptor(::dup(STDIN_FILENO)) : openFile(path, O_RDONLY | O_NONBLOCK);
    const auto fail = [&] { throw Failure(source, "cannot read: " + errorText(errno)); };
    if (!file) {
        fail();
    }
    std::string text;
    for (std::vector<char> buffer(1 << 16);;) {
        throwWhenInterrupted();
        pollfd input = {file.get(), POLLIN, 0};
        if (::poll(&input, 1, 100) <= 0) {
            continue;
        }
        const ssize_t count = ::read(file.get(), buffer.data(), buffer.size());
        if (count == 0) {
            return text;
        }
        if (count < 0 && errno != EAGAIN && errno != EINTR) {
            fail();
        }
        text.append(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(0, count)));
        if (text.size() > LARGEST_LIST) {
            throw Failure(source, "longer than 256 MiB, which no list of ranges is");
        }
    }
}

// In the image, all of them inside it; what a rounded size adds to it is cut off.
std::vector<Range> rangesIn(const HashedImage& hashed, const RangeList& list, const std::string& source,
                            std::int64_t start)
{
    const std::int64_t origin = list.isOnDevice() ? start : 0;
    const std::int64_t size = hashed.image().size();
    std::vector<Range> ranges;
    for (const auto& [listed, number] : list.entries) {
        const Range range = {listed.offset - origin, listed.length};
        const std::int64_t excess = roundUp(size % list.sizeUnit, list.sizeUnit) - size % list.sizeUnit;
        if (range.offset < 0 || range.end() - excess > size) {
            throw Failure(source,
                          placeIn(list.format, number) + ": " + std::to_string(listed.offset) + " + "
                              + std::to_string(listed.length) + " is not in " + hashed.image().path()
                              + ", which reaches from " + std::to_string(origin) + " to "
                              + std::to_string(origin + size));
        }
        ranges.push_back(between(std::min(range.offset, size), std::min(range.end(), size)));
    }
    return ranges;
}

std::vector<Range> listedRanges(const InvalidateArguments& what, const HashedImage& hashed)
{
    const std::string source = what.list == "-" ? "standard input" : what.list;
    const std::string list = listIn(what.list, source);
    if (!what.options.format
        && list.find_first_not_of(" \t\r\n") == std::string::npos) { // as of a command that has failed
        throw Failure(source, "is empty; name its --format if that means that nothing has changed");
    }
    return rangesIn(hashed, parseRangeList(list, source, what.options), source, hashed.hashFile().onDevice(0));
}

} // namespace

void forgetRanges(HashedImage& hashed, const std::vector<Range>& ranges)
{
    hashed.adaptToImage();
    hashed.belief().mark();
    for (const Range& range : ranges) {
        hashed.store().invalidate(range);
    }
    hashed.belief().flushHashes();
}

Forgotten forget(HashedImage& hashed, const InvalidateArguments& what, const Common& common)
{
    using Because = Doubt::Because;
    const std::vector<Range> ranges = listedRanges(what, hashed);
    Forgotten forgotten = {totalLength(ranges), std::ssize(ranges), {}};
    if (hashed.hashFile().wasMade()) { // in which nothing is known yet
        return forgotten;
    }
    Belief& belief = hashed.belief();
    const Doubt& doubt = belief.doubtOfRecord();
    const bool isOfOther = doubt.because == Because::AnotherImage || belief.isRecordOfOther();
    if (common.trust != Trust::Everything && (isOfOther || doubt.because == Because::NoRecord)) {
        throw Failure(hashed.image().path(),
                      "what was told may be of another image: "
                          + (isOfOther ? "another image has taken its place" : doubt.text) + "; build checks it");
    }
    forgetRanges(hashed, ranges);
    if (doubt.because == Because::Nothing || doubt.because == Because::Changed) {
        belief.believeTold();
    } else {
        forgotten.doubt = doubt.text;
    }
    return forgotten;
}

InvalidateResult invalidate(const ImageArguments& arguments, const InvalidateArguments& what, const Common& common)
{
    const std::unique_ptr<Image> opened = openImage(arguments.image, Image::Access::Read, common);
    const Image& image = *opened;
    HashedImage hashed(image, HashFile::openExisting(image, arguments.hashFile, common.reporter), common);
    Forgotten forgotten = forget(hashed, what, common);
    if (!forgotten.doubt.empty()) {
        hashed.belief().dismiss();
    }
    const Conclusions found = conclude(hashed, true);
    return {areSure(found) ? Verdict::Done : Verdict::Undecided, hashed.hashFile().path(), std::move(forgotten), found};
}

} // namespace kelvane::tool
