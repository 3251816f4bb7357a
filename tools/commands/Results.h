// What the commands found, as people and as programs read it.
#pragma once

#include <string>

#include "commands/Build.h"
#include "commands/Diff.h"
#include "commands/Hash.h"
#include "commands/Info.h"
#include "commands/Invalidate.h"
#include "commands/Sync.h"
#include "commands/SyncInto.h"
#include "commands/Verify.h"

namespace kelvane::tool {

std::string nameOf(Verdict verdict);

std::string textOf(const BuildResult& result);
std::string textOf(const DiffResult& result);
std::string textOf(const HashResult& result);
std::string textOf(const InfoResult& result);
std::string textOf(const InvalidateResult& result);
std::string textOf(const SyncResult& result);
std::string textOf(const SyncedInto& synced); // a line; what has failed has none
std::string textOf(const VerifyResult& result);

std::string jsonOf(const BuildResult& result);
std::string jsonOf(const DiffResult& result);
std::string jsonOf(const HashResult& result);
std::string jsonOf(const InfoResult& result);
std::string jsonOf(const InvalidateResult& result);
std::string jsonOf(const SyncResult& result);
std::string jsonOf(const std::vector<SyncedInto>& all);
std::string jsonOf(const VerifyResult& result);

} // namespace kelvane::tool
