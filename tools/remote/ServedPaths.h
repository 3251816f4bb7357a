// Which paths the other side may name.
#pragma once

#include <string>

namespace kelvane::tool {

class ServedPaths {
public:
    // Empty: all paths.
    explicit ServedPaths(std::string root);

    // The path of a file, itself there or not, that lies in the root, whatever links and ".." say. Relative paths
    // count from the root on; absolute ones must name it. A Failure for all others.
    std::string resolve(const std::string& path) const;

private:
    std::string m_root;
};

} // namespace kelvane::tool
