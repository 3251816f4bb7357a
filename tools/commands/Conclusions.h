// How the images that a command used were found in the end, and what follows from that.
#pragma once

#include <string>
#include <vector>

#include "commands/Verdict.h"
#include "work/Conclusion.h"
#include "work/HashedImage.h"
#include "work/Side.h"

namespace kelvane::tool {

struct Conclusions {
    struct OfImage {
        std::string image; // as it was given
        Conclusion conclusion;
    };

    std::vector<OfImage> all; // one for each image
};

// End the use of the images.
Conclusions conclude(HashedImage& image, bool isAnsweredFor = false);
Conclusions conclude(StartedSide& first, StartedSide& second);

// Those that were changed meanwhile; those that could have been without a trace, as far as the user does not answer for
// that.
std::vector<Conclusions::OfImage> changedOf(const Conclusions& found);
std::vector<Conclusions::OfImage> openForWritingOf(const Conclusions& found);

// Whether there are none of either.
bool areSure(const Conclusions& found);

} // namespace kelvane::tool
