// What is known in the end of an image that a run has used.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "image/Writers.h"

namespace kelvane::tool {

struct Conclusion {
    // Whether nobody has changed it, or its hash file, meanwhile.
    bool isUnchanged = true;

    // Whether others had it open for writing, and those of them that can be seen. Nobody can know which moment an
    // answer is of then, but by the user's word that they do not write.
    bool isOpenForWriting = false;
    std::vector<Program> writers;
    bool isAnsweredFor = false; // by that word

    // Whether what is known of it was believed at first; why not; what was checked then.
    bool isBelieved = true;
    std::string doubt;
    std::int64_t checkedBlocks = 0;
    std::int64_t repairedBlocks = 0;

    // Whether its hashes are recorded as true, so that the next run will believe them.
    bool isRecorded = false;

    std::string remarks; // lines for people
};

} // namespace kelvane::tool
