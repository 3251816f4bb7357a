#include "remote/ServedPaths.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <optional>
#include <utility>

#include "base/Failure.h"
#include "base/Uri.h"
#include "hash_file/SideFiles.h"

namespace kelvane::tool {

namespace {

[[noreturn]] void refuse(const std::string& path)
{
    throw Failure(path, "outside of what is served");
}

std::filesystem::path pathOf(const Descriptor& file)
{
    std::error_code error;
    return std::filesystem::read_symlink(file.place(), error);
}

bool isOutside(const std::filesystem::path& relative)
{
    return relative.empty() || *relative.begin() == "..";
}

// Where the text of a link leads, if the file is one.
std::optional<std::string> linkIn(const Descriptor& file)
{
    std::array<char, PATH_MAX> text;
    const ssize_t length = ::readlinkat(file.get(), "", text.data(), text.size());
    return length < 0 ? std::nullopt : std::optional(std::string(text.data(), static_cast<std::size_t>(length)));
}

// With "~" or "~USER" at its beginning as the directory that a shell means by it.
std::filesystem::path atHome(const std::string& path)
{
    if (!path.starts_with('~')) {
        return path;
    }
    const std::size_t end = std::min(path.find('/'), path.size());
    const std::string user = path.substr(1, end - 1);
    const char* const home = user.empty() ? std::getenv("HOME") : nullptr;
    const passwd* const entry = user.empty() ? ::getpwuid(::geteuid()) : ::getpwnam(user.c_str());
    if (home == nullptr && entry == nullptr) {
        throw Failure(path, "there is no such user; a file of that name is ./" + path);
    }
    return (home != nullptr ? home : entry->pw_dir) + path.substr(end);
}

} // namespace

ServedPaths::ServedPaths(const std::string& root)
{
    if (root.empty()) {
        return;
    }
    std::error_code error;
    m_given = std::filesystem::absolute(root, error).lexically_normal();
    m_descriptor = openFile(root, O_PATH | O_DIRECTORY);
    m_root = pathOf(m_descriptor);
    if (!m_descriptor || m_root.empty()) {
        throw Failure(root, "the root is no directory");
    }
}

// The root as it was given counts, too: links may lead to it.
std::filesystem::path ServedPaths::fromRoot(const std::filesystem::path& path) const
{
    if (!path.is_absolute()) {
        return path;
    }
    const std::filesystem::path relative = path.lexically_relative(m_root);
    return isOutside(relative) ? path.lexically_relative(m_given.has_filename() ? m_given : m_given.parent_path())
                               : relative;
}

// What older kernels opened is looked at afterwards.
Descriptor ServedPaths::openBeneath(const std::filesystem::path& path, int flags) const
{
    struct open_how how = {};
    how.flags = static_cast<std::uint64_t>(flags | O_PATH | O_CLOEXEC);
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
    Descriptor file(static_cast<int>(::syscall(SYS_openat2, m_descriptor.get(), path.c_str(), &how, sizeof(how))));
    if (!file && errno == ENOSYS) {
        file = Descriptor(::openat(m_descriptor.get(), path.c_str(), flags | O_PATH | O_CLOEXEC));
        if (file && isOutside(pathOf(file).lexically_relative(m_root))) {
            file = Descriptor();
            errno = EXDEV;
        }
    }
    return file;
}

// One name after the other, so that a link to an absolute path in the root is none that leads out of it.
ServedPaths::Place ServedPaths::follow(const std::filesystem::path& path, const std::string& asked) const
{
    constexpr int MOST_LINKS = 40; // as the system has it
    std::deque<std::filesystem::path> names(path.begin(), path.end());
    std::filesystem::path done;
    bool isLink = false; // what was asked for, and its directory may be
    for (int links = 0; !names.empty();) {
        const std::filesystem::path name = names.front();
        names.pop_front();
        if (name == ".." && done.empty()) {
            refuse(asked);
        }
        if (name.empty() || name == "." || name == "..") {
            done = name == ".." ? done.parent_path() : done;
            continue;
        }
        const Descriptor file = openBeneath(done / name, O_NOFOLLOW);
        if (!file && errno == ENOENT && names.empty() && !isLink) {
            return {done / name, false};
        }
        if (!file) {
            errno == EXDEV ? refuse(asked) : throw Failure(asked, errorText(errno));
        }
        const std::optional<std::string> target = linkIn(file);
        if (!target) {
            done /= name;
            continue;
        }
        const std::filesystem::path inside = fromRoot(*target);
        isLink = isLink || names.empty();
        if (++links > MOST_LINKS || inside.empty()) {
            refuse(asked);
        }
        done = std::filesystem::path(*target).is_absolute() ? "" : done;
        names.insert(names.begin(), inside.begin(), inside.end());
    }
    return {done, true};
}

std::string ServedPaths::resolve(const std::string& path)
{
    if (isExport(path)) {
        throw Failure(path, "an export is opened where the command runs, not on the other machine");
    }
    const std::filesystem::path given = atHome(path);
    if (!m_descriptor) {
        return given;
    }
    const std::filesystem::path relative = fromRoot(given);
    const std::string asked = relative.filename().string();
    if (asked.empty() || asked == "." || asked == ".." || path.find('\0') != std::string::npos) {
        refuse(path);
    }
    const Place place = follow(relative, path);
    const std::filesystem::path parent = place.path.has_parent_path() ? place.path.parent_path() : ".";
    Descriptor directory = openBeneath(parent, 0);
    struct stat status;
    // What is not there may be made, if nothing has its name.
    const bool isThere
        = directory && ::fstatat(directory.get(), place.path.filename().c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
    if (!directory || place.path.empty() || isThere != place.isThere || (isThere && S_ISLNK(status.st_mode))) {
        refuse(path);
    }
    return placeIn(std::move(directory), place.path, given.is_absolute());
}

// The directory stays open for as long as the path is used.
std::string ServedPaths::placeIn(Descriptor directory, const std::filesystem::path& path, bool isAbsolute)
{
    const std::filesystem::path shown = isAbsolute ? m_root / path.parent_path() : path.parent_path();
    const std::string place = directory.place() + "/" + path.filename().string();
    m_directories.push_back({std::move(directory), shown.empty() ? "" : (shown / "").string()});
    return place;
}

std::string ServedPaths::resolveHashFile(const std::string& path, const std::string& image)
{
    struct stat status;
    const bool isOfDevice = ::stat(image.c_str(), &status) == 0 && S_ISBLK(status.st_mode);
    if (!m_descriptor || (path.empty() && isOfDevice)) { // which has none unless it is named
        return path.empty() ? path : atHome(path).string();
    }
    const std::string place = resolve(path.empty() ? shown(image) + ".hashes" : path);
    for (const std::string& file : filesOf(place)) {
        if (::lstat(file.c_str(), &status) == 0 && S_ISLNK(status.st_mode)) {
            refuse(shown(file));
        }
    }
    return place;
}

std::string ServedPaths::shown(std::string text) const
{
    for (const Directory& directory : m_directories) {
        const std::string place = directory.descriptor.place() + "/";
        for (std::size_t at = text.find(place); at != std::string::npos; at = text.find(place, at)) {
            text.replace(at, place.size(), directory.shown);
            at += directory.shown.size();
        }
    }
    return text;
}

} // namespace kelvane::tool
