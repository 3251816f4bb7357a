// From what a user names to an image.
#pragma once

#include <memory>
#include <string>

#include "image/Image.h"

namespace kelvane::tool {

// Refuses what is a hash file, or the record beside one.
std::unique_ptr<Image> openImage(const std::string& path, Image::Access access, AtLink atLink = AtLink::Follow);

} // namespace kelvane::tool
