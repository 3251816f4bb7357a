#include "commands/Points.h"

#include <vector>

#include "base/Failure.h"
#include "base/Uri.h"

namespace kelvane::tool {

std::optional<Forgotten> takePoints(HashedImage& hashed, const PointArguments& points)
{
    const Image& image = hashed.image();
    if (points.areSome() && !isExport(image.path())) {
        throw Failure(image.path(), "points are those of exports; of files and devices the system tells what changed");
    }
    if (points.areSome() && points.point == points.since) {
        throw Failure(image.path(), "two moments have one name: " + points.point);
    }
    Belief& belief = hashed.belief();
    belief.takeMoment({points.point, points.since});
    if (points.since.empty()) {
        return std::nullopt;
    }
    const std::vector<Range> changed = image.changedRanges(); // before anything is forgotten
    if (belief.doubt().because == Doubt::Because::NotYetForgotten) {
        forgetRanges(hashed, changed);
        belief.believeTold();
    }
    return Forgotten {totalLength(changed), std::ssize(changed), belief.holds() ? "" : belief.doubt().text};
}

} // namespace kelvane::tool
