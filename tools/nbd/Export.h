// Images that another program serves by the NBD protocol.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "image/Image.h"

namespace kelvane::tool {

// As many connections as there are jobs at most, if the server takes several. That it stands still while it is used is
// the user's word: it shows no evidence. Fails where it is to be written and cannot be, and in a program without
// libnbd. `bitmap`: of what has changed; empty: none.
std::unique_ptr<Image> openExport(const std::string& uri, Image::Access access, unsigned jobs,
                                  std::chrono::seconds timeout, const std::string& bitmap);

} // namespace kelvane::tool
