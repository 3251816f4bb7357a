// Which paths the other side may name.
#pragma once

#include <deque>
#include <filesystem>
#include <string>

#include "base/Descriptor.h"

namespace kelvane::tool {

class ServedPaths {
public:
    // Empty: all paths.
    explicit ServedPaths(const std::string& root);

    // With a root, no link may be followed at the end of a path: `resolve` has done that.
    AtLink atLink() const { return m_descriptor ? AtLink::Refuse : AtLink::Follow; }

    // The path of a file, itself there or not, that lies in the root, whatever links and ".." say. It leads through
    // the descriptor of the directory, so that nobody can put another one in its place. Relative paths count from the
    // root on; absolute ones, those of links, too, must name it; "~/" and "~USER/" are as in a shell. A Failure for all
    // others, and for directories that are not there.
    std::string resolve(const std::string& path);

    // The same for a hash file; where nothing is named, for that of an image. What lies beside it is no link either.
    std::string resolveHashFile(const std::string& path, const std::string& image);

    // A text, with paths as the other side knows them.
    std::string shown(std::string text) const;

    // Of what was resolved so far.
    void letGo() { m_directories.clear(); }

private:
    struct Directory {
        Descriptor descriptor;
        std::string shown; // how it is named to the other side, with a slash at its end
    };

    struct Place {
        std::filesystem::path path; // from the root on, without links and ".."
        bool isThere;
    };

    std::filesystem::path fromRoot(const std::filesystem::path& path) const;
    Descriptor openBeneath(const std::filesystem::path& path, int flags) const;
    Place follow(const std::filesystem::path& path, const std::string& asked) const;
    std::string placeIn(Descriptor directory, const std::filesystem::path& path, bool isAbsolute);

    std::filesystem::path m_given;
    std::filesystem::path m_root;
    Descriptor m_descriptor;
    std::deque<Directory> m_directories;
};

} // namespace kelvane::tool
