// Names of exports, which other programs offer by the NBD protocol.
#pragma once

#include <string>
#include <string_view>

namespace kelvane::tool {

// Whether a text is a URI like nbd://HOST/EXPORT or nbd+unix:///EXPORT?socket=PATH. A file of that name is ./nbd:...
inline bool isExport(std::string_view text)
{
    if (!text.starts_with("nbd")) {
        return false;
    }
    const std::string_view scheme = text.substr(0, text.find("://"));
    return scheme.size() < text.size() && (scheme == "nbd" || scheme == "nbds" || scheme.find('+') <= 4);
}

} // namespace kelvane::tool
