#include "hash_file/SideFiles.h"

#include <algorithm>
#include <filesystem>

#include "base/Failure.h"

namespace kelvane::tool {

namespace {

// Links are followed as far as there is something, for what is missing would be made there.
std::filesystem::path placeOf(const std::string& path)
{
    std::error_code error;
    const std::filesystem::path absolute = std::filesystem::absolute(path, error);
    const std::filesystem::path place = std::filesystem::weakly_canonical(absolute, error);
    return error ? absolute.lexically_normal() : place;
}

bool leadToOne(const std::string& path, const std::string& other)
{
    std::error_code error;
    return std::filesystem::equivalent(path, other, error) || placeOf(path) == placeOf(other);
}

} // namespace

std::string recordPath(const std::string& hashFile)
{
    return hashFile + ".state";
}

std::vector<std::string> filesOf(const std::string& hashFile)
{
    return {hashFile, recordPath(hashFile)};
}

void keepApart(const std::string& image, const std::string& hashFile)
{
    if (leadToOne(image, hashFile)) {
        throw Failure(hashFile, "given as an image and as a hash file");
    }
    for (const std::string& path : filesOf(hashFile)) {
        if (leadToOne(image, path)) {
            throw Failure(path,
                          "this is an image, and the hash file " + hashFile + " would need its name; name another one");
        }
    }
}

void keepHashFilesApart(const std::string& hashFile, const std::string& other)
{
    if (leadToOne(hashFile, other)) {
        throw Failure(other, "given as the hash file of both images");
    }
    const std::vector<std::string> taken = filesOf(hashFile);
    for (const std::string& path : filesOf(other)) {
        if (std::any_of(taken.begin(), taken.end(), [&](const std::string& name) { return leadToOne(name, path); })) {
            throw Failure(other, "the hash file " + hashFile + " needs the same names beside it; name another one");
        }
    }
}

} // namespace kelvane::tool
