// What is believed of an export by the names of its moments.
#pragma once

#include <optional>

#include "commands/Invalidate.h"

namespace kelvane::tool {

// Says of which moment an image is, before anything is done with its hashes. What the bitmap holds is forgotten where
// the hashes are those of the point at which it begins; whatever else they are of is checked. Fails for an image that
// is no export.
std::optional<Forgotten> takePoints(HashedImage& hashed, const PointArguments& points);

} // namespace kelvane::tool
