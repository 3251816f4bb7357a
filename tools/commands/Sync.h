// Makes an image equal to another one.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "commands/Conclusions.h"
#include "commands/Invalidate.h"
#include "commands/Pair.h"
#include "work/Compare.h"

namespace kelvane::tool {

struct SyncArguments {
    bool reread = false;
    bool isSparse = true;
    bool isDryRun = false;
    std::optional<InvalidateArguments> changes; // of the source, since its hashes were true
};

struct SyncResult {
    Verdict verdict;
    std::string source;
    std::string destination;
    std::int64_t size; // of the source
    Comparison comparison;
    std::chrono::nanoseconds time;
    bool wasMade;                           // the destination
    std::optional<std::int64_t> formerSize; // of one that was resized
    bool wasChangedByOthers;                // when this command changed it
    bool isReread;
    std::optional<std::int64_t> firstDifference; // that was found then
    std::optional<PairTraffic> traffic;
    Conclusions found;
    bool isForeseen = false; // what is told of the destination was not done
    std::optional<Forgotten> told;
};

// With `isDryRun` it only finds out what it would do, and stores the hashes that this takes, as `diff` does. Of a
// destination that is missing it counts all of the source; Different is then the verdict for whatever is to be done.
SyncResult sync(const PairArguments& arguments, const SyncArguments& how, const Common& common,
                RemoteSide::Line* line = nullptr);

} // namespace kelvane::tool
