// What can be seen of an image without reading it.
#pragma once

#include "image/Identity.h"
#include "image/Marks.h"

namespace kelvane::tool {

struct ImageState {
    Identity identity;
    Marks marks;
    bool isNamed = true; // the image's path led to it

    // Why it proves nothing; empty when it does.
    const std::string& doubt() const { return identity.doubt.empty() ? marks.doubt : identity.doubt; }

    // Of this run's image, at another time.
    bool isSame(const ImageState& other) const
    {
        return isNamed && other.isNamed && identity.traits == other.identity.traits
            && identity.instance == other.identity.instance && marks.size == other.marks.size
            && marks.traits == other.marks.traits;
    }
};

} // namespace kelvane::tool
