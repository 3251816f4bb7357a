#include "hash_file/Inspection.h"

#include <limits>
#include <system_error>

namespace kelvane::tool {

namespace {

Failure noHashFile(const std::string& path)
{
    return {path, 0, "not a hash file"};
}

// The library's text ends in the number of the error; people want its name.
std::string named(const std::system_error& error)
{
    std::string text = error.what();
    text.erase(text.size() - error.code().message().size());
    return text + errorText(error.code().value());
}

} // namespace

Failure explained(const std::string& path, const std::runtime_error& error)
{
    const auto* const refusal = dynamic_cast<const HashFileFinding*>(&error);
    const HashFileFinding finding = refusal != nullptr ? *refusal : HashFileFinding();
    switch (finding.fault) {
    case HashFileFault::Status:
    case HashFileFault::Opening:
        return {path, "cannot open the hash file: " + errorText(finding.error)};
    case HashFileFault::FileType:
    case HashFileFault::Length:
    case HashFileFault::MagicNumber:
        return noHashFile(path);
    case HashFileFault::Version:
    case HashFileFault::DataRegionOffset:
    case HashFileFault::BlockSize:
    case HashFileFault::HashFunction:
        return {path, static_cast<std::int64_t>(finding.offset),
                "a hash file of a form that is not known here; remove it to start anew"};
    case HashFileFault::FileSize:
        return {path,
                "its size of " + std::to_string(finding.fileSize)
                    + " does not fit its header: a change of it was cut short, unless one is under way; "
                      "remove it to start anew"};
    default:
        break;
    }
    const auto* const ofSystem = dynamic_cast<const std::system_error*>(&error);
    return {path, ofSystem != nullptr ? named(*ofSystem) : error.what()};
}

Descriptor openHashFile(const std::string& path)
{
    const Descriptor found = openFile(path, O_PATH); // a pipe would be waited for
    struct stat status;
    if (found && ::fstat(found.get(), &status) == 0 && !S_ISREG(status.st_mode)) {
        throw noHashFile(path);
    }
    Descriptor file = found ? openAgain(found, O_RDONLY) : Descriptor();
    return file ? std::move(file) : throw Failure(path, "cannot open the hash file: " + errorText(errno));
}

bool isHashFile(const std::string& path)
{
    return HashFileInspector::examine(path).isHashFile();
}

Geometry geometryOf(const HashFileInspector& inspector, const std::string& path)
{
    constexpr auto GREATEST = static_cast<kelvane_size_t>(std::numeric_limits<std::int64_t>::max());
    const kelvane_size_t start = inspector.partition_offset_in_bytes();
    const kelvane_size_t end = inspector.target_size_in_bytes();
    if (start > end || end > GREATEST) {
        throw Failure(path, "impossible sizes: a target from " + std::to_string(start) + " to " + std::to_string(end));
    }
    return {inspector.block_size_in_bytes(), static_cast<std::int64_t>(start), static_cast<std::int64_t>(end - start)};
}

} // namespace kelvane::tool
