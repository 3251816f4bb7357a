// Makes files in a directory equal to several images, one after the other.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "commands/Sync.h"

namespace kelvane::tool {

// Whether images are put into it, under their own names, not in its place: a directory here; on another machine what
// ends in a slash, is empty or is "~".
bool isDirectory(const std::string& destination);

// A pair for each source, with options like those of `like`. A Failure for a source without a name, and for two with
// the same one.
std::vector<PairArguments> pairsInto(const std::string& directory, const std::vector<std::string>& sources,
                                     const PairArguments& like);

struct SyncedInto {
    std::string source;
    std::string destination;
    std::optional<SyncResult> result;
    std::string failure; // when there is none
};

// Goes on with the next one after a failure, but ends with Interrupted. What lies on one other machine goes over one
// connection, as long as nothing fails. `tell` is called after each.
std::vector<SyncedInto> syncInto(const std::vector<PairArguments>& pairs, const SyncArguments& how,
                                 const Common& common, const std::function<void(const SyncedInto& each)>& tell);

} // namespace kelvane::tool
