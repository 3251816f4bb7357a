// While this program writes to an image, the stamps of that do not tell whether another one does, too.
#pragma once

#include "image/Image.h"

namespace kelvane::tool {

// As long as it lives, the system tells when another process opens the image. One at a time.
class ExclusiveUse {
public:
    // The system does not do so of block devices, of images that another process has open, and of those that belong to
    // another user.
    explicit ExclusiveUse(const Image& image);
    ~ExclusiveUse();
    ExclusiveUse(const ExclusiveUse&) = delete;
    ExclusiveUse& operator=(const ExclusiveUse&) = delete;

    // Whether no other process had the image open, or opens it now, which waits for the end of this.
    bool isGranted() const;

private:
    bool m_isGranted;
};

} // namespace kelvane::tool
