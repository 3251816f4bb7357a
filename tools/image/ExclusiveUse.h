// While this program writes to an image, the stamps of that do not tell whether another one does, too.
#pragma once

#include "image/Image.h"

namespace kelvane::tool {

// As long as it lives, the system tells when another process opens the image. One at a time.
class ExclusiveUse {
public:
    // Has no effect where the system does not do so: of block devices, of images that another process has open, of
    // those that belong to another user.
    explicit ExclusiveUse(const Image& image);
    ~ExclusiveUse();
    ExclusiveUse(const ExclusiveUse&) = delete;
    ExclusiveUse& operator=(const ExclusiveUse&) = delete;

    // Whether the image was opened meanwhile. It was not delayed.
    bool wasShared() const;
};

} // namespace kelvane::tool
