// The ranges in which two images differ.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "base/Range.h"
#include "commands/Conclusions.h"
#include "commands/Pair.h"

namespace kelvane::tool {

struct DiffResult {
    Verdict verdict;
    std::int64_t firstSize;
    std::int64_t secondSize;
    std::vector<Range> differing; // on the device, ascending
    std::int64_t comparisons;
    std::int64_t bytesRead;
    std::optional<PairTraffic> traffic;
    Conclusions found;
};

DiffResult diff(const PairArguments& arguments, const Common& common);

} // namespace kelvane::tool
