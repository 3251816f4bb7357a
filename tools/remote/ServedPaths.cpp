#include "remote/ServedPaths.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <cerrno>
#include <utility>

#include "base/Failure.h"
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

// Itself, if it is a link.
bool isSame(const Descriptor& directory, const std::string& name, const Descriptor& file)
{
    struct stat there;
    struct stat own;
    return ::fstatat(directory.get(), name.c_str(), &there, AT_SYMLINK_NOFOLLOW) == 0 && ::fstat(file.get(), &own) == 0
        && numberOf(there) == numberOf(own);
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
Descriptor ServedPaths::openBeneath(const std::filesystem::path& path) const
{
    struct open_how how = {};
    how.flags = O_PATH | O_CLOEXEC;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
    Descriptor file(static_cast<int>(::syscall(SYS_openat2, m_descriptor.get(), path.c_str(), &how, sizeof(how))));
    if (!file && errno == ENOSYS) {
        file = Descriptor(::openat(m_descriptor.get(), path.c_str(), O_PATH | O_CLOEXEC));
        if (file && isOutside(pathOf(file).lexically_relative(m_root))) {
            file = Descriptor();
            errno = EXDEV;
        }
    }
    return file;
}

std::string ServedPaths::resolve(const std::string& path)
{
    if (!m_descriptor) {
        return path;
    }
    const std::filesystem::path given = path;
    std::filesystem::path relative = fromRoot(given);
    const std::string asked = relative.filename().string();
    if (asked.empty() || asked == "." || asked == ".." || path.find('\0') != std::string::npos) {
        refuse(path);
    }
    const Descriptor file = openBeneath(relative);
    if (!file && errno != ENOENT) {
        refuse(path);
    }
    if (file) {
        relative = pathOf(file).lexically_relative(m_root); // behind all links
    }
    const std::filesystem::path parent = relative.has_parent_path() ? relative.parent_path() : ".";
    Descriptor directory = openBeneath(parent);
    const std::string name = relative.filename().string();
    struct stat status;
    // What is not there may be made, if nothing has its name.
    if (!directory
        || (file ? !isSame(directory, name, file)
                 : ::fstatat(directory.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0)) {
        refuse(path);
    }
    return placeIn(std::move(directory), relative, given.is_absolute());
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
        return path;
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
