// How a command works, whatever it does.
#pragma once

#include "terminal/Progress.h"

namespace kelvane::tool {

// What is believed of the hashes that are known already.
enum class Trust {
    Evidence, // that they are true, when the record beside the hash file says so
    Nothing,
    Everything
};

struct Common {
    unsigned jobs = 0; // threads that read and hash; 0: as many as the machine has cores
    ProgressMode progress = ProgressMode::Automatic;
    Trust trust = Trust::Evidence;
};

} // namespace kelvane::tool
