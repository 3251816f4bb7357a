// Makes an image equal to another one.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "commands/Conclusions.h"
#include "commands/Pair.h"
#include "work/Compare.h"

namespace kelvane::tool {

struct SyncArguments {
    bool reread = false;
    bool isSparse = true;
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
};

SyncResult sync(const PairArguments& arguments, const SyncArguments& how, const Common& common);

} // namespace kelvane::tool
