#include "nbd/Export.h"

namespace kelvane::tool {

std::unique_ptr<Image> openExport(const std::string& uri, Image::Access /*access*/, unsigned /*jobs*/,
                                  std::chrono::seconds /*timeout*/, const std::string& /*bitmap*/)
{
    throw Failure(uri, "this program was built without libnbd, which NBD exports take");
}

} // namespace kelvane::tool
