#include "remote/ServedPaths.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <cerrno>
#include <filesystem>
#include <utility>

#include "base/Descriptor.h"
#include "base/Failure.h"

namespace kelvane::tool {

namespace {

Descriptor openBeneath(int root, const std::string& path)
{
    struct open_how how = {};
    how.flags = O_PATH | O_CLOEXEC;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
    return Descriptor(static_cast<int>(::syscall(SYS_openat2, root, path.c_str(), &how, sizeof(how))));
}

std::string pathOf(const Descriptor& file)
{
    return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(file.get())).string();
}

// For kernels that have no way of their own.
bool isBeneath(const std::string& root, const std::string& path)
{
    std::error_code error;
    const std::string real = std::filesystem::weakly_canonical(path, error).string();
    return !error && (real == root || real.starts_with(root == "/" ? root : root + "/"));
}

} // namespace

ServedPaths::ServedPaths(std::string root)
    : m_root(std::move(root))
{
    if (!m_root.empty()) {
        std::error_code error;
        m_root = std::filesystem::canonical(m_root, error).string();
        if (error || !std::filesystem::is_directory(m_root)) {
            throw Failure(m_root, "the root is no directory");
        }
    }
}

std::string ServedPaths::resolve(const std::string& path) const
{
    if (m_root.empty()) {
        return path;
    }
    const auto refuse = [&]() -> std::string { throw Failure(path, "outside of what is served"); };
    const std::filesystem::path given = path;
    const std::filesystem::path relative = given.is_absolute() ? given.lexically_relative(m_root) : given;
    const std::string name = relative.filename().string();
    if (name.empty() || name == "." || name == ".." || path.find('\0') != std::string::npos) {
        return refuse();
    }
    const Descriptor root = openFile(m_root, O_PATH | O_DIRECTORY);
    Descriptor file = openBeneath(root.get(), relative.string());
    if (file) {
        return pathOf(file);
    }
    if (errno == ENOSYS) {
        const std::string whole = (m_root / relative).string();
        return isBeneath(m_root, whole) ? whole : refuse();
    }
    if (errno != ENOENT) {
        return refuse();
    }
    // It may be made, in a directory that is there, if nothing has its name.
    const std::string parent = relative.has_parent_path() ? relative.parent_path().string() : ".";
    const Descriptor directory = openBeneath(root.get(), parent);
    struct stat status;
    if (!directory || ::fstatat(directory.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
        return refuse();
    }
    return pathOf(directory) + "/" + name;
}

} // namespace kelvane::tool
