// From what a user names to an image.
#pragma once

#include <memory>
#include <string>

#include "image/Image.h"
#include "work/Common.h"

namespace kelvane::tool {

// A path, or the URI of an export. Refuses what is a hash file, or the record beside one.
// `bitmap`: that of an export of which it
// will be asked what has changed; empty: none.
std::unique_ptr<Image> openImage(const std::string& path, Image::Access access, const Common& common,
                                 AtLink atLink = AtLink::Follow, const std::string& bitmap = {});

} // namespace kelvane::tool
