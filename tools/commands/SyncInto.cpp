#include "commands/SyncInto.h"

#include <filesystem>
#include <set>

#include "base/Failure.h"
#include "base/Interrupt.h"
#include "base/Uri.h"

namespace kelvane::tool {

namespace {

std::string nameOf(const std::string& source)
{
    if (isExport(source)) {
        throw Failure(source, "an export has no name in a directory; name the file that it is to become");
    }
    const auto far = remotePath(source);
    std::string name = std::filesystem::path(far ? far->path : source).filename().string();
    if (name.empty() || name == "." || name == "..") {
        throw Failure(source, "no image to be put into a directory");
    }
    return name;
}

} // namespace

bool isDirectory(const std::string& destination)
{
    const auto far = remotePath(destination);
    std::error_code error;
    return far ? far->path.empty() || far->path == "~" || far->path.ends_with('/')
               : std::filesystem::is_directory(destination, error);
}

std::vector<PairArguments> pairsInto(const std::string& directory, const std::vector<std::string>& sources,
                                     const PairArguments& like)
{
    std::vector<PairArguments> pairs;
    std::set<std::string> names;
    const auto far = remotePath(directory);
    const bool isOpen = directory.ends_with('/') || (far && far->path.empty());
    for (const std::string& source : sources) {
        const std::string name = nameOf(source);
        if (!names.insert(name).second) {
            throw Failure(source, "another image of that name is given, too");
        }
        pairs.push_back(like);
        pairs.back().first.image = source;
        pairs.back().second.image = directory + (isOpen ? "" : "/") + name;
    }
    return pairs;
}

std::vector<SyncedInto> syncInto(const std::vector<PairArguments>& pairs, const SyncArguments& how,
                                 const Common& common, const std::function<void(const SyncedInto& each)>& tell)
{
    std::vector<SyncedInto> all;
    RemoteSide::Line line;
    for (const PairArguments& pair : pairs) {
        SyncedInto& each = all.emplace_back(SyncedInto {pair.first.image, pair.second.image, {}, {}});
        try {
            each.result = sync(pair, how, common, &line);
        } catch (const Interrupted&) {
            throw;
        } catch (const std::bad_alloc&) {
            each.failure = "out of memory";
        } catch (const std::exception& error) {
            each.failure = error.what();
        }
        tell(each);
    }
    return all;
}

} // namespace kelvane::tool
